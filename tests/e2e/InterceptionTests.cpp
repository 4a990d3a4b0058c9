// The whole road of a tool call through the built bridge: the query the gateway sees, what the
// server and the client receive on allow and on deny, failures of the gateway, approval
// heartbeats, screenshot and pin-violation events. Every test also checks the server's record:
// a call that was not approved must never reach it.

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "BridgeHarness.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "TestGateway.hpp"

namespace sentrova::e2e {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kReasonSeparator = " \xE2\x80\x94 ";
const std::string kClosing = ". Do not retry this exact call; ask the user or choose a different action.";
const std::string kToken = "tok/en=1 x";

// Pins of the tool definitions below, computed outside the bridge (sha256sum over the sorted,
// compact text of the five pinned keys, "/" written as "\/").
const std::string kReadFilePin = "7325f1c297efa33de8684b1b5bc207082405de3d906eaf27cdd0c3f88b7730cc";
const std::string kReadFileChangedPin = "f76c004e90fd2464596e1cfe63296ffad10d167bb51a717ee74b7888c69ef3b7";
const std::string kWipeDiskPin = "530754ee186768218ef52503757a9c4f41de9a68bc2a128764bfcf248358659d";

// Spaced and ordered as a server might send them; "title" is not pinned.
const std::string kReadFileTool =
    R"({"name":"read_file", "title":"Read","description":"Reads a file under /srv",)"
    R"( "inputSchema":{"type":"object","properties":{ "path":{"type":"string"}}},)"
    R"("annotations":{"readOnlyHint":true,"destructiveHint":false}})";
const std::string kReadFileChangedTool =
    R"({"name":"read_file","title":"Read","description":"Reads any file at all, \/etc included",)"
    R"("inputSchema":{"type":"object","properties":{"path":{"type":"string"}}},)"
    R"("annotations":{"readOnlyHint":true,"destructiveHint":false}})";
const std::string kWipeDiskTool =
    R"({"name":"wipe_disk","description":"Wipes the disk","inputSchema":{"type":"object"},"annotations":{}})";

// The body of a JSON string for the texts of these tests: quotation marks and backslashes
// escaped, "/" and UTF-8 as they are.
std::string jsonEscaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '"' || c == '\\') out.push_back('\\');
        if (c == '\t') {
            out += "\\t";
            continue;
        }
        out.push_back(c);
    }
    return out;
}

std::string denyLine(const std::string& idJSON, const std::string& message) {
    return R"({"id":)" + idJSON + R"(,"jsonrpc":"2.0","result":{"content":[{"text":")" + jsonEscaped(message) +
           R"(","type":"text"}],"isError":true}})";
}

std::string policyDeny(const std::string& tool, const std::string& reason) {
    return "Denied by Sentrova policy: " + tool + " was not approved" + kReasonSeparator + reason + kClosing;
}

std::string pinDeny(const std::string& tool, const std::string& reason) {
    return "Denied by Sentrova (tool-pin violation): " + tool + " changed since it was last approved" + kReasonSeparator +
           reason + kClosing;
}

std::string callLine(const std::string& idJSON, const std::string& tool, const std::string& extraParams = "") {
    return R"({"jsonrpc":"2.0","id":)" + idJSON + R"(,"method":"tools/call","params":{"name":")" + tool + "\"" +
           extraParams + "}}";
}

std::string listLine(int id) { return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/list"})"; }
std::string pingLine(int id) { return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"ping"})"; }

// What the scripted server answers to a request with this raw id text.
std::string serverAnswer(const std::string& idText, const std::string& result) {
    return R"({"jsonrpc":"2.0","id":)" + idText + R"(,"result":)" + result + "}";
}
std::string textResult(const std::string& text) {
    return R"({"content":[{"text":")" + text + R"(","type":"text"}]})";
}

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
}

std::vector<std::string> withOptions(std::vector<std::string> options, const std::vector<std::string>& args) {
    options.insert(options.end(), args.begin(), args.end());
    return options;
}

std::string serverCommand(const std::vector<std::string>& script) {
    std::string command = scriptedServerPath();
    for (const auto& word : script) command += " " + word;
    return command;
}

Environment environmentWithToken() {
    Environment env = testEnvironment();
    env["SENTROVA_GATEWAY_TOKEN"] = kToken;
    return env;
}

// 8-4-4-4-12 upper-case hexadecimal digits, version 4, RFC 4122 variant.
bool isUpperCaseUUIDv4(const std::string& text) {
    if (text.size() != 36) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphen ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
    }
    return text[14] == '4' && std::string_view("89AB").find(text[19]) != std::string_view::npos;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The query body as the gateway must receive it: every member in ascending order, the
// arguments as one JSON string, optional members left out when not set.
struct ExpectedQuery {
    std::string argumentsJSON = "{}";
    bool pinChanged = false;
    std::string pinHash;
    std::optional<std::string> previousPinHash;
    std::optional<std::string> provider;
    std::string risk = "caution";
    std::string serverCommand;
    std::string tool;

    std::string body(const std::string& requestID) const {
        std::string text = R"({"argumentsJSON":")" + jsonEscaped(argumentsJSON) + R"(","pinChanged":)" +
                           (pinChanged ? "true" : "false") + R"(,"pinHash":")" + pinHash + "\"";
        if (previousPinHash) text += R"(,"previousPinHash":")" + *previousPinHash + "\"";
        if (provider) text += R"(,"provider":")" + jsonEscaped(*provider) + "\"";
        return text + R"(,"requestID":")" + requestID + R"(","risk":")" + risk + R"(","serverCommand":")" +
               jsonEscaped(serverCommand) + R"(","tool":")" + tool + R"(","workerName":"e2e-worker"})";
    }
};

// Checks one recorded query against the expectation and returns its request id.
std::string expectQuery(const RecordedRequest& query, const ExpectedQuery& expected) {
    EXPECT_EQ(query.method, "POST");
    EXPECT_EQ(query.path, "/v1/toolcall");
    EXPECT_EQ(query.header("Content-Type"), "application/json");
    const auto parsed = parseJson(query.body);
    const Json* id = parsed ? parsed->find("requestID") : nullptr;
    if (id == nullptr || !id->isString()) {
        ADD_FAILURE() << "no requestID in " << query.body;
        return "";
    }
    EXPECT_TRUE(isUpperCaseUUIDv4(id->stringValue())) << id->stringValue();
    EXPECT_EQ(query.body, expected.body(id->stringValue()));
    return id->stringValue();
}

std::string pinViolationBody(const std::string& tool, const std::string& previous, const std::string& current) {
    return R"({"kind":"pinViolation","pinHash":")" + current + R"(","previousPinHash":")" + previous +
           R"(","tool":")" + tool + R"(","workerName":"e2e-worker"})";
}

std::string progressLine(const std::string& tokenJSON, int progress) {
    return R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"message":"Awaiting Sentrova approval)"
           "\xE2\x80\xA6"
           R"(","progress":)" +
           std::to_string(progress) + R"(,"progressToken":)" + tokenJSON + "}}";
}

// Ends the run by closing the client's side and returns what the server received.
std::string finishAndReadRecord(ChildProcess& bridge, const std::string& record) {
    bridge.closeInput();
    EXPECT_EQ(bridge.waitExit(), (ExitStatus{0, 0}));
    return readFile(record);
}

// ---------------------------------------------------------------------------------------------

TEST(InterceptionTests, AllowedCallsReachTheServerByteForByteWithAFullQuery) {
    TestGateway gateway; // allows
    const std::string record = temporaryPath("allowed.record");
    const std::string tools = temporaryPath("allowed.tools");
    writeFile(tools, "[ " + kReadFileTool + " , " + kWipeDiskTool + "]");
    const std::string result = R"({ "content" : [{"type":"text","text":"done \/ caf\u00e9"}],"isError":false })";
    const std::vector<std::string> script = {"--tools-file", tools, "--record", record, "--call-result", result,
                                             "--serve"};
    auto bridge = ChildProcess::startBridge(
        withOptions({"--provider", "acme-llm"}, bridgeArgs(gateway.origin(), script)), environmentWithToken());
    ASSERT_NE(bridge, nullptr);

    ASSERT_TRUE(bridge->writeLine(listLine(1)));
    EXPECT_EQ(bridge->readLine(), serverAnswer("1", "{\"tools\":[ " + kReadFileTool + " , " + kWipeDiskTool + "]}"));

    // Odd spacing, members out of order, escaped slashes, \u escapes, trailing blanks.
    const std::string oddCall =
        R"({ "params" : { "arguments" : {"z":1, "path":"\/etc\/hosts","a":{"y":"x/y","b":[true,null,1.5]},)"
        R"("note":"caf\u00e9 \"q\"\ttab"}, "name":"read_file" }, "id" : 2 ,"method":"tools/call",  "jsonrpc":"2.0"}  )";
    ASSERT_TRUE(bridge->writeLine(oddCall));
    EXPECT_EQ(bridge->readLine(), serverAnswer("2 ", result));

    // A string id and no arguments; then a tool the server never listed, with array arguments.
    const std::string wipeCall = callLine(R"("w-1")", "wipe_disk");
    ASSERT_TRUE(bridge->writeLine(wipeCall));
    EXPECT_EQ(bridge->readLine(), serverAnswer(R"("w-1")", result));
    const std::string unlistedCall = callLine("3", "unlisted", R"(,"arguments":["x/y",{"b":2,"a":1}])");
    ASSERT_TRUE(bridge->writeLine(unlistedCall));
    EXPECT_EQ(bridge->readLine(), serverAnswer("3", result));

    EXPECT_EQ(finishAndReadRecord(*bridge, record),
              listLine(1) + "\n" + oddCall + "\n" + wipeCall + "\n" + unlistedCall + "\n");

    const auto queries = gateway.queries();
    ASSERT_EQ(queries.size(), 3u);
    ExpectedQuery expected;
    expected.provider = "acme-llm";
    expected.serverCommand = serverCommand(script);

    expected.tool = "read_file";
    expected.argumentsJSON = R"({"a":{"b":[true,null,1.5],"y":"x/y"},"note":"café \"q\"\ttab","path":"/etc/hosts","z":1})";
    expected.risk = "safe";
    expected.pinHash = kReadFilePin;
    std::set<std::string> requestIDs = {expectQuery(queries[0], expected)};

    expected.tool = "wipe_disk";
    expected.argumentsJSON = "{}";
    expected.risk = "critical";
    expected.pinHash = kWipeDiskPin;
    requestIDs.insert(expectQuery(queries[1], expected));

    expected.tool = "unlisted";
    expected.argumentsJSON = R"(["x/y",{"a":1,"b":2}])";
    expected.risk = "caution";
    expected.pinHash = "";
    requestIDs.insert(expectQuery(queries[2], expected));

    EXPECT_EQ(requestIDs.size(), 3u) << "request ids must be fresh for every call";
    for (const auto& query : queries) EXPECT_EQ(query.header("Authorization"), "Bearer " + kToken);
    EXPECT_TRUE(gateway.events().empty());
}

TEST(InterceptionTests, DeniedCallsGetExactlyTheDenyLineAndNeverReachTheServer) {
    TestGateway gateway;
    const std::string reason = R"(rule "no-wipe" at /policy)";
    gateway.answerQueries({200, TestGateway::denyBody(reason), {}});
    const std::string record = temporaryPath("denied.record");
    auto bridge = ChildProcess::startBridge(
        bridgeArgs(gateway.origin(), {"--record", record, "--call-text", "wiped", "--serve"}));
    ASSERT_NE(bridge, nullptr);

    ASSERT_TRUE(bridge->writeLine(callLine("7", "wipe_disk", R"(,"arguments":{"all":true})")));
    EXPECT_EQ(bridge->readLine(), denyLine("7", policyDeny("wipe_disk", reason)));
    ASSERT_TRUE(bridge->writeLine(callLine(R"("s-8")", "wipe_disk")));
    EXPECT_EQ(bridge->readLine(), denyLine(R"("s-8")", policyDeny("wipe_disk", reason)));

    // A deny without a reason of its own carries the policy sentence, full stop and all.
    gateway.answerQueries({200, R"({"decision":"deny"})", {}});
    ASSERT_TRUE(bridge->writeLine(callLine("9", "wipe_disk")));
    EXPECT_EQ(bridge->readLine(), denyLine("9", policyDeny("wipe_disk", "Denied by Sentrova policy.")));

    ASSERT_TRUE(bridge->writeLine(pingLine(10)));
    EXPECT_EQ(finishAndReadRecord(*bridge, record), pingLine(10) + "\n");
    EXPECT_EQ(gateway.queries().size(), 3u);
    EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    EXPECT_FALSE(bridge->readLine(std::chrono::milliseconds(0)).has_value()) << "nothing but the three denies";
}

TEST(InterceptionTests, GatewayTroubleGivesItsOwnDenyReason) {
    const std::string noAnswer = "Sentrova gateway did not answer in time; denying (fail-closed).";
    {
        SCOPED_TRACE("gateway down");
        const std::string record = temporaryPath("down.record");
        const std::string down = "http://127.0.0.1:" + std::to_string(closedLocalPort());
        auto bridge = ChildProcess::startBridge(bridgeArgs(down, {"--record", record, "--serve"}));
        ASSERT_NE(bridge, nullptr);
        const auto started = Clock::now();
        ASSERT_TRUE(bridge->writeLine(callLine("1", "wipe_disk")));
        EXPECT_EQ(bridge->readLine(), denyLine("1", policyDeny("wipe_disk", noAnswer)));
        EXPECT_LT(secondsSince(started), 15.0) << "a refused connection is known at once";
        EXPECT_EQ(finishAndReadRecord(*bridge, record), "");
    }
    {
        SCOPED_TRACE("status 500");
        TestGateway gateway;
        gateway.answerQueries({500, TestGateway::allowBody(), {}});
        const std::string record = temporaryPath("500.record");
        auto bridge = ChildProcess::startBridge(bridgeArgs(gateway.origin(), {"--record", record, "--serve"}));
        ASSERT_NE(bridge, nullptr);
        ASSERT_TRUE(bridge->writeLine(callLine("2", "wipe_disk")));
        EXPECT_EQ(bridge->readLine(), denyLine("2", policyDeny("wipe_disk", noAnswer)));
        EXPECT_EQ(finishAndReadRecord(*bridge, record), "");
        EXPECT_EQ(gateway.queries().size(), 1u);
    }
    {
        SCOPED_TRACE("slower than the deadline");
        TestGateway gateway;
        // The allow comes far too late and must not let the call through afterwards.
        gateway.answerQueries({200, TestGateway::allowBody(), std::chrono::milliseconds(3000)});
        const std::string record = temporaryPath("slow.record");
        auto bridge = ChildProcess::startBridge(
            withOptions({"--deadline", "0.5"}, bridgeArgs(gateway.origin(), {"--record", record, "--serve"})));
        ASSERT_NE(bridge, nullptr);
        const auto started = Clock::now();
        ASSERT_TRUE(bridge->writeLine(callLine("3", "wipe_disk")));
        EXPECT_EQ(bridge->readLine(),
                  denyLine("3", policyDeny("wipe_disk", "Sentrova approval timed out; denying by policy (fail-closed).")));
        const double elapsed = secondsSince(started);
        EXPECT_GE(elapsed, 0.45);
        EXPECT_LT(elapsed, 2.5) << "the deadline, not the gateway's 3 s, ends the wait";
        ASSERT_TRUE(gateway.waitForQueries(1, defaultTimeout));
        std::this_thread::sleep_for(std::chrono::milliseconds(3500) - (Clock::now() - started));
        ASSERT_TRUE(bridge->writeLine(pingLine(4)));
        EXPECT_EQ(finishAndReadRecord(*bridge, record), pingLine(4) + "\n");
    }
}

// Reads client lines up to and including the first one that is not a progress notification.
struct LinesUntilAnswer {
    std::vector<std::string> notifications;
    std::string answer;
};
LinesUntilAnswer readUntilAnswer(ChildProcess& bridge) {
    LinesUntilAnswer lines;
    while (auto line = bridge.readLine()) {
        if (line->find("\"notifications/progress\"") == std::string::npos) {
            lines.answer = *line;
            break;
        }
        lines.notifications.push_back(*line);
    }
    return lines;
}

// Ticks at 0.2, 0.4 and 0.6 s give progress 1, 2, 3 before the decision at 0.7 s. A decision
// that is more than 0.1 s late on a loaded machine may let the tick at 0.8 s through as well,
// but no more: the heartbeat stops as soon as the decision is in.
void expectHeartbeats(const std::vector<std::string>& notifications, const std::string& tokenJSON) {
    EXPECT_GE(notifications.size(), 3u);
    EXPECT_LE(notifications.size(), 4u);
    for (std::size_t i = 0; i < notifications.size(); ++i) {
        EXPECT_EQ(notifications[i], progressLine(tokenJSON, static_cast<int>(i) + 1));
    }
}

// After a call's answer at most one tick that was already running may still arrive.
void expectHeartbeatStopped(ChildProcess& bridge, const std::string& tokenJSON, std::size_t sent) {
    std::this_thread::sleep_for(std::chrono::milliseconds(600)); // three intervals
    if (auto late = bridge.readLine(std::chrono::milliseconds(0))) {
        EXPECT_EQ(*late, progressLine(tokenJSON, static_cast<int>(sent) + 1));
    }
    EXPECT_FALSE(bridge.readLine(std::chrono::milliseconds(0)).has_value()) << "heartbeat still running";
}

TEST(InterceptionTests, HeartbeatsWhileTheGatewayThinks) {
    TestGateway gateway;
    gateway.answerQueries({200, TestGateway::allowBody(), std::chrono::milliseconds(700)});
    const std::string record = temporaryPath("heartbeat.record");
    auto bridge = ChildProcess::startBridge(withOptions(
        {"--heartbeat", "0.2"}, bridgeArgs(gateway.origin(), {"--record", record, "--call-text", "slow", "--serve"})));
    ASSERT_NE(bridge, nullptr);

    const std::string stringToken = callLine("1", "slow_tool", R"(,"_meta":{"progressToken":"hb-1"})");
    ASSERT_TRUE(bridge->writeLine(stringToken));
    const LinesUntilAnswer first = readUntilAnswer(*bridge);
    expectHeartbeats(first.notifications, R"("hb-1")");
    EXPECT_EQ(first.answer, serverAnswer("1", textResult("slow")));
    expectHeartbeatStopped(*bridge, R"("hb-1")", first.notifications.size());

    // A numeric token comes back as the same number, counting from 1 again; a deny stops it too.
    gateway.answerQueries({200, TestGateway::denyBody("not now"), std::chrono::milliseconds(700)});
    ASSERT_TRUE(bridge->writeLine(callLine("2", "slow_tool", R"(,"_meta":{"progressToken":7})")));
    const LinesUntilAnswer second = readUntilAnswer(*bridge);
    expectHeartbeats(second.notifications, "7");
    EXPECT_EQ(second.answer, denyLine("2", policyDeny("slow_tool", "not now")));
    expectHeartbeatStopped(*bridge, "7", second.notifications.size());

    // No progress token, no heartbeat.
    gateway.answerQueries({200, TestGateway::allowBody(), std::chrono::milliseconds(700)});
    const std::string noToken = callLine("3", "slow_tool", R"(,"_meta":{"other":1})");
    ASSERT_TRUE(bridge->writeLine(noToken));
    const LinesUntilAnswer third = readUntilAnswer(*bridge);
    EXPECT_TRUE(third.notifications.empty()) << third.notifications.front();
    EXPECT_EQ(third.answer, serverAnswer("3", textResult("slow")));

    EXPECT_EQ(finishAndReadRecord(*bridge, record), stringToken + "\n" + noToken + "\n");
    const auto queries = gateway.queries();
    ASSERT_EQ(queries.size(), 3u);
    EXPECT_FALSE(queries[0].hasHeader("Authorization")) << "no token, no Authorization header";
}

TEST(InterceptionTests, AnImageInAnAllowedAnswerIsReportedAsAScreenshot) {
    TestGateway gateway; // allows
    const std::string record = temporaryPath("screenshot.record");
    const std::string data = "iVBORw0KGgo/+AAA=";
    auto bridge = ChildProcess::startBridge(
        bridgeArgs(gateway.origin(), {"--record", record, "--call-image", data, "image/jpeg", "--serve"}),
        environmentWithToken());
    ASSERT_NE(bridge, nullptr);

    const std::string call = callLine("1", "take_screenshot");
    ASSERT_TRUE(bridge->writeLine(call));
    EXPECT_EQ(bridge->readLine(),
              serverAnswer("1", R"({"content":[{"data":")" + data + R"(","mimeType":"image/jpeg","type":"image"}]})"));
    ASSERT_TRUE(gateway.waitForEvents(1, defaultTimeout));
    const auto events = gateway.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].method, "POST");
    EXPECT_EQ(events[0].body,
              R"({"base64":")" + data + R"(","kind":"screenshot","mimeType":"image/jpeg","workerName":"e2e-worker"})");
    EXPECT_EQ(events[0].header("Authorization"), "Bearer " + kToken);
    EXPECT_EQ(events[0].header("Content-Type"), "application/json");

    // A denied call brings no answer from the server, so no screenshot either.
    gateway.answerQueries({200, TestGateway::denyBody("no"), {}});
    ASSERT_TRUE(bridge->writeLine(callLine("2", "take_screenshot")));
    EXPECT_EQ(bridge->readLine(), denyLine("2", policyDeny("take_screenshot", "no")));
    EXPECT_EQ(finishAndReadRecord(*bridge, record), call + "\n");
    EXPECT_EQ(gateway.events().size(), 1u);
}

TEST(InterceptionTests, AChangedToolDefinitionIsReportedUntilItIsApproved) {
    TestGateway gateway; // allows
    const std::string record = temporaryPath("pins.record");
    const std::string tools = temporaryPath("pins.tools");
    writeFile(tools, "[" + kReadFileTool + "]");
    auto bridge = ChildProcess::startBridge(bridgeArgs(
        gateway.origin(), {"--tools-file", tools, "--record", record, "--call-text", "ok", "--serve"}));
    ASSERT_NE(bridge, nullptr);
    std::string expectedRecord;
    auto send = [&](const std::string& line) {
        EXPECT_TRUE(bridge->writeLine(line));
        return bridge->readLine().value_or("(no answer)");
    };
    auto call = [](int id) { return callLine(std::to_string(id), "read_file", R"(,"arguments":{"path":"/srv/a"})"); };

    EXPECT_EQ(send(listLine(1)), serverAnswer("1", "{\"tools\":[" + kReadFileTool + "]}"));
    EXPECT_EQ(send(call(2)), serverAnswer("2", textResult("ok")));
    expectedRecord += listLine(1) + "\n" + call(2) + "\n";

    // The server now announces another definition of the same tool.
    writeFile(tools, "[" + kReadFileChangedTool + "]");
    EXPECT_EQ(send(listLine(3)), serverAnswer("3", "{\"tools\":[" + kReadFileChangedTool + "]}"));
    expectedRecord += listLine(3) + "\n";

    // Denied twice: a deny approves nothing, so both calls are reported as changed. The decision
    // is held back, so an event posted before the query is in by the time the deny arrives.
    gateway.answerQueries({200, TestGateway::denyBody("review the new definition"), std::chrono::milliseconds(500)});
    const std::string violation = pinViolationBody("read_file", kReadFilePin, kReadFileChangedPin);
    EXPECT_EQ(send(call(4)), denyLine("4", pinDeny("read_file", "review the new definition")));
    ASSERT_EQ(gateway.events().size(), 1u);
    EXPECT_EQ(gateway.events()[0].body, violation);
    EXPECT_EQ(send(call(5)), denyLine("5", pinDeny("read_file", "review the new definition")));
    ASSERT_EQ(gateway.events().size(), 2u);
    EXPECT_EQ(gateway.events()[1].body, violation);

    // Allowed while changed: reported once more, then approved, so the next call is clean.
    gateway.answerQueries({200, TestGateway::allowBody(), std::chrono::milliseconds(300)});
    EXPECT_EQ(send(call(6)), serverAnswer("6", textResult("ok")));
    ASSERT_EQ(gateway.events().size(), 3u);
    EXPECT_EQ(gateway.events()[2].body, violation);
    EXPECT_EQ(send(call(7)), serverAnswer("7", textResult("ok")));
    expectedRecord += call(6) + "\n" + call(7) + "\n";

    EXPECT_EQ(finishAndReadRecord(*bridge, record), expectedRecord);
    EXPECT_EQ(gateway.events().size(), 3u);

    const auto queries = gateway.queries();
    ASSERT_EQ(queries.size(), 5u);
    ExpectedQuery expected;
    expected.serverCommand =
        serverCommand({"--tools-file", tools, "--record", record, "--call-text", "ok", "--serve"});
    expected.tool = "read_file";
    expected.argumentsJSON = R"({"path":"/srv/a"})";
    expected.risk = "safe";
    expected.pinHash = kReadFilePin;
    expectQuery(queries[0], expected); // call 2
    expected.pinHash = kReadFileChangedPin;
    expected.pinChanged = true;
    expected.previousPinHash = kReadFilePin;
    for (std::size_t i = 1; i <= 3; ++i) expectQuery(queries[i], expected); // calls 4, 5, 6
    expected.pinChanged = false;
    expected.previousPinHash.reset();
    expectQuery(queries[4], expected); // call 7
}

TEST(InterceptionTests, CallsWithoutIdPassAndMalformedCallsAreDeniedWithoutAQuery) {
    TestGateway gateway; // would allow anything it were asked about
    const std::string record = temporaryPath("malformed.record");
    auto bridge = ChildProcess::startBridge(bridgeArgs(gateway.origin(), {"--record", record, "--serve"}));
    ASSERT_NE(bridge, nullptr);

    const std::string notification =
        R"({"jsonrpc":"2.0", "method":"tools/call","params":{"name":"wipe_disk","arguments":{"all":true}}})";
    ASSERT_TRUE(bridge->writeLine(notification));

    const std::string malformed = policyDeny("tool", "the request was malformed");
    ASSERT_TRUE(bridge->writeLine(R"({"jsonrpc":"2.0","id":3,"method":"tools/call"})"));
    EXPECT_EQ(bridge->readLine(),
              R"({"id":3,"jsonrpc":"2.0","result":{"content":[{"text":"Denied by Sentrova policy: tool was not )"
              "approved \xE2\x80\x94 the request was malformed. Do not retry this exact call; ask the user or "
              R"(choose a different action.","type":"text"}],"isError":true}})");
    ASSERT_TRUE(bridge->writeLine(R"({"jsonrpc":"2.0","id":"m-4","method":"tools/call","params":{"name":42}})"));
    EXPECT_EQ(bridge->readLine(), denyLine(R"("m-4")", malformed));
    ASSERT_TRUE(bridge->writeLine(R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":["wipe_disk"]})"));
    EXPECT_EQ(bridge->readLine(), denyLine("5", malformed));

    ASSERT_TRUE(bridge->writeLine(pingLine(6)));
    EXPECT_EQ(finishAndReadRecord(*bridge, record), notification + "\n" + pingLine(6) + "\n");
    EXPECT_TRUE(gateway.requests().empty()) << "the gateway must not be asked";
}

} // namespace
} // namespace sentrova::e2e
