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
#include <thread>
#include <vector>

#include "BridgeHarness.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "TestGateway.hpp"

namespace sentrova::e2e {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string kDash = " \xE2\x80\x94 ";
const std::string kClosing = ". Do not retry this exact call; ask the user or choose a different action.";
const std::string kToken = "tok/en=1 x";
const std::string kNoAnswer = "Sentrova gateway did not answer in time; denying (fail-closed).";

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

// The body of a JSON string for the texts of these tests: quotes, backslashes and tabs escaped.
std::string jsonEscaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '"' || c == '\\') out.push_back('\\');
        out += c == '\t' ? std::string("\\t") : std::string(1, c);
    }
    return out;
}

std::string denyLine(const std::string& idJSON, const std::string& message) {
    return R"({"id":)" + idJSON + R"(,"jsonrpc":"2.0","result":{"content":[{"text":")" + jsonEscaped(message) +
           R"(","type":"text"}],"isError":true}})";
}
std::string policyDeny(const std::string& tool, const std::string& reason) {
    return "Denied by Sentrova policy: " + tool + " was not approved" + kDash + reason + kClosing;
}
std::string pinDeny(const std::string& tool, const std::string& reason) {
    return "Denied by Sentrova (tool-pin violation): " + tool + " changed since it was last approved" + kDash + reason +
           kClosing;
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
std::string textResult(const std::string& text) { return R"({"content":[{"text":")" + text + R"(","type":"text"}]})"; }
std::string progressLine(const std::string& tokenJSON, std::size_t progress) {
    return R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"message":"Awaiting Sentrova approval)"
           "\xE2\x80\xA6"
           R"(","progress":)" +
           std::to_string(progress) + R"(,"progressToken":)" + tokenJSON + "}}";
}

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// One bridge in front of the scripted server, which records every line it receives.
struct BridgeRun {
    BridgeRun(const std::string& origin, std::vector<std::string> serverWords, std::vector<std::string> options = {},
        Environment env = testEnvironment())
        : record(temporaryPath("interception.record")) {
        script = {"--record", record};
        script.insert(script.end(), serverWords.begin(), serverWords.end());
        script.push_back("--serve");
        const auto args = bridgeArgs(origin, script);
        options.insert(options.end(), args.begin(), args.end());
        bridge = ChildProcess::startBridge(options, env);
    }
    std::string send(const std::string& line) {
        EXPECT_TRUE(bridge->writeLine(line));
        return bridge->readLine().value_or("(no answer)");
    }
    // Ends the run by closing the client's side and returns what the server received.
    std::string finish() {
        bridge->closeInput();
        EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
        return readFile(record);
    }
    std::string serverCommand() const {
        std::string command = scriptedServerPath();
        for (const auto& word : script) command += " " + word;
        return command;
    }
    std::string record;
    std::vector<std::string> script;
    std::unique_ptr<ChildProcess> bridge;
};

Environment environmentWithToken() {
    Environment env = testEnvironment();
    env["SENTROVA_GATEWAY_TOKEN"] = kToken;
    return env;
}

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
    EXPECT_EQ(query.method + " " + query.path, "POST /v1/toolcall");
    EXPECT_EQ(query.header("Content-Type"), "application/json");
    const auto parsed = parseJson(query.body);
    const Json* id = parsed ? parsed->find("requestID") : nullptr;
    if (id == nullptr || !id->isString()) {
        ADD_FAILURE() << "no requestID in " << query.body;
        return "";
    }
    // 8-4-4-4-12 upper-case hexadecimal digits, version 4, RFC 4122 variant. (No std::regex:
    // GCC 12 warns inside it under ASan, and warnings are errors here.)
    const std::string& uuid = id->stringValue();
    bool wellFormed = uuid.size() == 36 && uuid[14] == '4' && std::string_view("89AB").find(uuid[19]) != std::string_view::npos;
    for (std::size_t i = 0; wellFormed && i < uuid.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        wellFormed = dash ? uuid[i] == '-' : std::string_view("0123456789ABCDEF").find(uuid[i]) != std::string_view::npos;
    }
    EXPECT_TRUE(wellFormed)
        << id->stringValue();
    EXPECT_EQ(query.body, expected.body(id->stringValue()));
    return id->stringValue();
}

// Client lines up to and including the first one that is not a progress notification.
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

// Ticks at 0.2, 0.4 and 0.6 s give progress 1, 2, 3 before the decision at 0.7 s; a loaded
// machine may let the tick at 0.8 s through as well, but no more. After the answer at most one
// tick that was already running may still arrive.
void expectHeartbeats(ChildProcess& bridge, const std::vector<std::string>& notifications, const std::string& token) {
    EXPECT_GE(notifications.size(), 3u);
    EXPECT_LE(notifications.size(), 4u);
    for (std::size_t i = 0; i < notifications.size(); ++i) EXPECT_EQ(notifications[i], progressLine(token, i + 1));
    std::this_thread::sleep_for(milliseconds(600)); // three intervals
    if (auto late = bridge.readLine(milliseconds(0))) {
        EXPECT_EQ(*late, progressLine(token, notifications.size() + 1));
    }
    EXPECT_FALSE(bridge.readLine(milliseconds(0)).has_value()) << "heartbeat still running";
}

// ---------------------------------------------------------------------------------------------

TEST(InterceptionTests, AllowedCallsReachTheServerByteForByteWithAFullQuery) {
    TestGateway gateway; // allows
    const std::string tools = temporaryPath("allowed.tools");
    writeFile(tools, "[ " + kReadFileTool + " , " + kWipeDiskTool + "]");
    const std::string result = R"({ "content" : [{"type":"text","text":"done \/ caf\u00e9"}],"isError":false })";
    BridgeRun run(gateway.origin(), {"--tools-file", tools, "--call-result", result}, {"--provider", "acme-llm"},
            environmentWithToken());
    ASSERT_NE(run.bridge, nullptr);
    EXPECT_EQ(run.send(listLine(1)), serverAnswer("1", "{\"tools\":[ " + kReadFileTool + " , " + kWipeDiskTool + "]}"));

    // Odd spacing, members out of order, escaped slashes, \u escapes, trailing blanks; then a
    // string id and no arguments; then a tool the server never listed, with array arguments.
    const std::string oddCall =
        R"({ "params" : { "arguments" : {"z":1, "path":"\/etc\/hosts","a":{"y":"x/y","b":[true,null,1.5]},)"
        R"("note":"caf\u00e9 \"q\"\ttab"}, "name":"read_file" }, "id" : 2 ,"method":"tools/call",  "jsonrpc":"2.0"}  )";
    const std::string wipeCall = callLine(R"("w-1")", "wipe_disk");
    const std::string unlistedCall = callLine("3", "unlisted", R"(,"arguments":["x/y",{"b":2,"a":1}])");
    EXPECT_EQ(run.send(oddCall), serverAnswer("2 ", result));
    EXPECT_EQ(run.send(wipeCall), serverAnswer(R"("w-1")", result));
    EXPECT_EQ(run.send(unlistedCall), serverAnswer("3", result));
    EXPECT_EQ(run.finish(), listLine(1) + "\n" + oddCall + "\n" + wipeCall + "\n" + unlistedCall + "\n");

    const auto queries = gateway.queries();
    ASSERT_EQ(queries.size(), 3u);
    ExpectedQuery expected{R"({"a":{"b":[true,null,1.5],"y":"x/y"},"note":"café \"q\"\ttab","path":"/etc/hosts","z":1})",
                           false, kReadFilePin, std::nullopt, "acme-llm", "safe", run.serverCommand(), "read_file"};
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
    BridgeRun run(gateway.origin(), {"--call-text", "wiped"});
    ASSERT_NE(run.bridge, nullptr);
    EXPECT_EQ(run.send(callLine("7", "wipe_disk", R"(,"arguments":{"all":true})")),
              denyLine("7", policyDeny("wipe_disk", reason)));
    EXPECT_EQ(run.send(callLine(R"("s-8")", "wipe_disk")), denyLine(R"("s-8")", policyDeny("wipe_disk", reason)));
    // A deny without a reason of its own carries the policy sentence, full stop and all.
    gateway.answerQueries({200, R"({"decision":"deny"})", {}});
    EXPECT_EQ(run.send(callLine("9", "wipe_disk")), denyLine("9", policyDeny("wipe_disk", "Denied by Sentrova policy.")));

    ASSERT_TRUE(run.bridge->writeLine(pingLine(10)));
    EXPECT_EQ(run.finish(), pingLine(10) + "\n");
    EXPECT_EQ(gateway.queries().size(), 3u);
    EXPECT_TRUE(run.bridge->output().waitForEnd(defaultTimeout));
    EXPECT_FALSE(run.bridge->readLine(milliseconds(0)).has_value()) << "nothing but the three denies";
}

TEST(InterceptionTests, GatewayTroubleGivesItsOwnDenyReason) {
    {
        SCOPED_TRACE("gateway down");
        BridgeRun run("http://127.0.0.1:" + std::to_string(closedLocalPort()), {});
        ASSERT_NE(run.bridge, nullptr);
        const auto started = Clock::now();
        EXPECT_EQ(run.send(callLine("1", "wipe_disk")), denyLine("1", policyDeny("wipe_disk", kNoAnswer)));
        EXPECT_LT(secondsSince(started), 15.0) << "a refused connection is known at once";
        EXPECT_EQ(run.finish(), "");
    }
    {
        SCOPED_TRACE("status 500");
        TestGateway gateway;
        gateway.answerQueries({500, TestGateway::allowBody(), {}});
        BridgeRun run(gateway.origin(), {});
        ASSERT_NE(run.bridge, nullptr);
        EXPECT_EQ(run.send(callLine("2", "wipe_disk")), denyLine("2", policyDeny("wipe_disk", kNoAnswer)));
        EXPECT_EQ(run.finish(), "");
        EXPECT_EQ(gateway.queries().size(), 1u);
    }
    {
        SCOPED_TRACE("slower than the deadline");
        TestGateway gateway;
        // The allow comes far too late and must not let the call through afterwards.
        gateway.answerQueries({200, TestGateway::allowBody(), milliseconds(3000)});
        BridgeRun run(gateway.origin(), {}, {"--deadline", "0.5"});
        ASSERT_NE(run.bridge, nullptr);
        const auto started = Clock::now();
        EXPECT_EQ(run.send(callLine("3", "wipe_disk")),
                  denyLine("3", policyDeny("wipe_disk", "Sentrova approval timed out; denying by policy (fail-closed).")));
        const double elapsed = secondsSince(started);
        EXPECT_GE(elapsed, 0.45);
        EXPECT_LT(elapsed, 2.5) << "the deadline, not the gateway's 3 s, ends the wait";
        ASSERT_TRUE(gateway.waitForQueries(1, defaultTimeout));
        std::this_thread::sleep_for(milliseconds(3500) - (Clock::now() - started));
        ASSERT_TRUE(run.bridge->writeLine(pingLine(4)));
        EXPECT_EQ(run.finish(), pingLine(4) + "\n");
    }
}

TEST(InterceptionTests, HeartbeatsWhileTheGatewayThinks) {
    TestGateway gateway;
    gateway.answerQueries({200, TestGateway::allowBody(), milliseconds(700)});
    BridgeRun run(gateway.origin(), {"--call-text", "slow"}, {"--heartbeat", "0.2"});
    ASSERT_NE(run.bridge, nullptr);

    const std::string stringToken = callLine("1", "slow_tool", R"(,"_meta":{"progressToken":"hb-1"})");
    ASSERT_TRUE(run.bridge->writeLine(stringToken));
    const LinesUntilAnswer first = readUntilAnswer(*run.bridge);
    EXPECT_EQ(first.answer, serverAnswer("1", textResult("slow")));
    expectHeartbeats(*run.bridge, first.notifications, R"("hb-1")");

    // A numeric token comes back as the same number, counting from 1 again; a deny stops it too.
    gateway.answerQueries({200, TestGateway::denyBody("not now"), milliseconds(700)});
    ASSERT_TRUE(run.bridge->writeLine(callLine("2", "slow_tool", R"(,"_meta":{"progressToken":7})")));
    const LinesUntilAnswer second = readUntilAnswer(*run.bridge);
    EXPECT_EQ(second.answer, denyLine("2", policyDeny("slow_tool", "not now")));
    expectHeartbeats(*run.bridge, second.notifications, "7");

    // No progress token, no heartbeat.
    gateway.answerQueries({200, TestGateway::allowBody(), milliseconds(700)});
    const std::string noToken = callLine("3", "slow_tool", R"(,"_meta":{"other":1})");
    EXPECT_EQ(run.send(noToken), serverAnswer("3", textResult("slow")));

    EXPECT_EQ(run.finish(), stringToken + "\n" + noToken + "\n");
    ASSERT_EQ(gateway.queries().size(), 3u);
    EXPECT_FALSE(gateway.queries()[0].hasHeader("Authorization")) << "no token, no Authorization header";
}

TEST(InterceptionTests, AnImageInAnAllowedAnswerIsReportedAsAScreenshot) {
    TestGateway gateway; // allows
    const std::string data = "iVBORw0KGgo/+AAA=";
    BridgeRun run(gateway.origin(), {"--call-image", data, "image/jpeg"}, {}, environmentWithToken());
    ASSERT_NE(run.bridge, nullptr);
    const std::string call = callLine("1", "take_screenshot");
    EXPECT_EQ(run.send(call),
              serverAnswer("1", R"({"content":[{"data":")" + data + R"(","mimeType":"image/jpeg","type":"image"}]})"));
    ASSERT_TRUE(gateway.waitForEvents(1, defaultTimeout));
    const auto events = gateway.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].method + " " + events[0].path, "POST /v1/event");
    EXPECT_EQ(events[0].body,
              R"({"base64":")" + data + R"(","kind":"screenshot","mimeType":"image/jpeg","workerName":"e2e-worker"})");
    EXPECT_EQ(events[0].header("Authorization"), "Bearer " + kToken);
    EXPECT_EQ(events[0].header("Content-Type"), "application/json");

    // A denied call brings no answer from the server, so no screenshot either.
    gateway.answerQueries({200, TestGateway::denyBody("no"), {}});
    EXPECT_EQ(run.send(callLine("2", "take_screenshot")), denyLine("2", policyDeny("take_screenshot", "no")));
    EXPECT_EQ(run.finish(), call + "\n");
    EXPECT_EQ(gateway.events().size(), 1u);
}

TEST(InterceptionTests, AChangedToolDefinitionIsReportedUntilItIsApproved) {
    TestGateway gateway; // allows
    const std::string tools = temporaryPath("pins.tools");
    writeFile(tools, "[" + kReadFileTool + "]");
    BridgeRun run(gateway.origin(), {"--tools-file", tools, "--call-text", "ok"});
    ASSERT_NE(run.bridge, nullptr);
    auto call = [](int id) { return callLine(std::to_string(id), "read_file", R"(,"arguments":{"path":"/srv/a"})"); };
    auto expectEvents = [&](std::size_t count) {
        const std::string violation = R"({"kind":"pinViolation","pinHash":")" + kReadFileChangedPin +
                                      R"(","previousPinHash":")" + kReadFilePin +
                                      R"(","tool":"read_file","workerName":"e2e-worker"})";
        const auto events = gateway.events();
        ASSERT_EQ(events.size(), count);
        for (const auto& event : events) EXPECT_EQ(event.body, violation);
    };

    EXPECT_EQ(run.send(listLine(1)), serverAnswer("1", "{\"tools\":[" + kReadFileTool + "]}"));
    EXPECT_EQ(run.send(call(2)), serverAnswer("2", textResult("ok")));
    // The server now announces another definition of the same tool.
    writeFile(tools, "[" + kReadFileChangedTool + "]");
    EXPECT_EQ(run.send(listLine(3)), serverAnswer("3", "{\"tools\":[" + kReadFileChangedTool + "]}"));

    // Denied twice: a deny approves nothing, so both calls are reported as changed. The decision
    // is held back, so an event posted before the query is in by the time the deny arrives.
    gateway.answerQueries({200, TestGateway::denyBody("review the new definition"), milliseconds(500)});
    EXPECT_EQ(run.send(call(4)), denyLine("4", pinDeny("read_file", "review the new definition")));
    expectEvents(1);
    EXPECT_EQ(run.send(call(5)), denyLine("5", pinDeny("read_file", "review the new definition")));
    expectEvents(2);

    // Allowed while changed: reported once more, then approved, so the next call is clean.
    gateway.answerQueries({200, TestGateway::allowBody(), milliseconds(300)});
    EXPECT_EQ(run.send(call(6)), serverAnswer("6", textResult("ok")));
    expectEvents(3);
    EXPECT_EQ(run.send(call(7)), serverAnswer("7", textResult("ok")));
    EXPECT_EQ(run.finish(), listLine(1) + "\n" + call(2) + "\n" + listLine(3) + "\n" + call(6) + "\n" + call(7) + "\n");
    expectEvents(3);

    const auto queries = gateway.queries();
    ASSERT_EQ(queries.size(), 5u);
    ExpectedQuery expected{R"({"path":"/srv/a"})", false, kReadFilePin, std::nullopt, std::nullopt, "safe",
                           run.serverCommand(), "read_file"};
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
    BridgeRun run(gateway.origin(), {});
    ASSERT_NE(run.bridge, nullptr);
    const std::string notification =
        R"({"jsonrpc":"2.0", "method":"tools/call","params":{"name":"wipe_disk","arguments":{"all":true}}})";
    ASSERT_TRUE(run.bridge->writeLine(notification));

    const std::string malformed = policyDeny("tool", "the request was malformed");
    EXPECT_EQ(run.send(R"({"jsonrpc":"2.0","id":3,"method":"tools/call"})"),
              R"({"id":3,"jsonrpc":"2.0","result":{"content":[{"text":"Denied by Sentrova policy: tool was not )"
              "approved \xE2\x80\x94 the request was malformed. Do not retry this exact call; ask the user or "
              R"(choose a different action.","type":"text"}],"isError":true}})");
    EXPECT_EQ(run.send(R"({"jsonrpc":"2.0","id":"m-4","method":"tools/call","params":{"name":42}})"),
              denyLine(R"("m-4")", malformed));
    EXPECT_EQ(run.send(R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":"wipe_disk"})"),
              denyLine("5", malformed));

    ASSERT_TRUE(run.bridge->writeLine(pingLine(6)));
    EXPECT_EQ(run.finish(), notification + "\n" + pingLine(6) + "\n");
    EXPECT_TRUE(gateway.requests().empty()) << "the gateway must not be asked";
}

} // namespace
} // namespace sentrova::e2e
