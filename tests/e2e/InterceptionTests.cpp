// The whole road of a tool call through the built bridge to the dev gateway and back: what the
// gateway is asked, what the server and the client receive on allow and on deny, time-outs,
// heartbeats, cancellation, screenshot and pin-violation events. The server's record shows
// that a call that was not approved never reached it.

#include <set>

#include "BridgeHarness.hpp"

namespace sentrova::e2e {
namespace {

const std::string kPolicy = R"({"rules":[
  {"tool":"wipe_disk","decision":"deny","reason":"rule \"no-wipe\""},
  {"tool":"*","pinChanged":true,"decision":"deny","reason":"review the new definition"},
  {"tool":"late_tool","decision":"allow","delaySeconds":3},
  {"tool":"slow_tool","decision":"allow","delaySeconds":0.8},
  {"tool":"*","decision":"allow"}]})";

const std::string kReadFile = R"({"name":"read_file", "description":"Reads a file under /srv",)"
                              R"("inputSchema":{"type":"object"},"annotations":{"readOnlyHint":true,"destructiveHint":false}})";
const std::string kImage = R"({"content":[{"type":"image","data":"iVBORw0KGgo=","mimeType":"image/png"}]})";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(InterceptionTests, AllowedCallsReachTheServerAsSentAndRefusedOnesNever) {
    DevGateway gateway(kPolicy);
    const std::string record = temporaryPath("record"), tools = temporaryPath("tools");
    writeFile(tools, "[" + kReadFile + "]");
    const std::vector<std::string> server = {"sh", "-c", kServer, record, kImage, tools};
    std::vector<std::string> args = {"--provider", "acme-llm", "--deadline", "1.5", "--heartbeat", "0.2", "--gateway",
                                     gateway.url, "--worker-name", "e2e-worker", "--"};
    args.insert(args.end(), server.begin(), server.end());
    Child bridge(args);
    const std::string list = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})";
    EXPECT_EQ(bridge.send(list), R"({"jsonrpc":"2.0","id":1,"result":{"tools":[)" + kReadFile + "]}}");
    // Odd spacing, members out of order, escapes: relayed byte for byte, asked about in normal form.
    const std::string odd = R"({"jsonrpc":"2.0","id":2, "params" : { "arguments" : {"z":1, "p":"\/etc","a":)"
                            R"({"b":[true,null,1.5]}}, "name":"read_file" },"method":"tools/call"}  )";
    EXPECT_EQ(bridge.send(odd), R"({"jsonrpc":"2.0","id":2,"result":)" + kImage + "}");
    const Json allowed = gateway.records("toolcall", 1).at(0);
    EXPECT_EQ(member(allowed, "decision"), "allow");
    EXPECT_EQ(member(allowed, "query.argumentsJSON"), R"({"a":{"b":[true,null,1.5]},"p":"/etc","z":1})");
    EXPECT_EQ(member(allowed, "query.serverCommand"), "sh -c " + kServer + " " + record + " " + kImage + " " + tools);
    EXPECT_EQ(member(allowed, "query.workerName") + " " + member(allowed, "query.provider") + " " +
                  member(allowed, "query.risk"), "e2e-worker acme-llm safe");
    const std::string pin = member(allowed, "query.pinHash");
    EXPECT_EQ(pin.size(), 64u);
    EXPECT_EQ(member(gateway.records("event", 1).at(0), "event.kind"), "screenshot");

    // Denied by the policy, malformed, or a changed definition: the bridge answers, the server never sees it.
    const std::string deny = bridge.send(callLine(R"("w-3")", "wipe_disk"));
    EXPECT_TRUE(contains(deny, R"({"id":"w-3")") && contains(deny, "wipe_disk was not approved") &&
                contains(deny, R"(rule \"no-wipe\")") && contains(deny, R"("isError":true)")) << deny;
    EXPECT_TRUE(contains(bridge.send(R"({"jsonrpc":"2.0","id":4,"method":"tools/call"})"), "malformed"));
    // A call without an id asks for no answer and is relayed as any notification is.
    const std::string notification = R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"wipe_disk"}})";
    ASSERT_TRUE(bridge.writeLine(notification));
    writeFile(tools, R"([{"name":"read_file","description":"Reads any file at all","inputSchema":{"type":"object"}}])");
    const std::string relisted = R"({"jsonrpc":"2.0","id":5,"method":"tools/list"})";
    EXPECT_TRUE(contains(bridge.send(relisted), "any file at all"));
    const std::string changed = bridge.send(callLine("6", "read_file"));
    EXPECT_TRUE(contains(changed, "tool-pin violation") && contains(changed, "review the new definition")) << changed;
    const Json violation = gateway.records("event", 2).at(1);
    EXPECT_EQ(member(violation, "event.kind") + " " + member(violation, "event.previousPinHash"), "pinViolation " + pin);
    const auto asked = gateway.records("toolcall", 3);
    ASSERT_EQ(asked.size(), 3u);
    EXPECT_EQ(member(asked[2], "query.pinChanged"), "true");
    EXPECT_EQ(member(asked[2], "query.pinHash"), member(violation, "event.pinHash"));
    std::set<std::string> requestIDs;
    for (const Json& query : asked) requestIDs.insert(member(query, "query.requestID"));
    EXPECT_EQ(requestIDs.size(), 3u) << "a fresh request id for every call";

    // Ticks every 0.2 s while the gateway holds its allow back for 0.8 s, then the server's answer.
    const std::string slow = callLine("7", "slow_tool", R"(,"_meta":{"progressToken":"hb-1"})");
    ASSERT_TRUE(bridge.writeLine(slow));
    std::vector<std::string> lines;
    std::optional<std::string> line;
    while ((line = bridge.readLine()) && contains(*line, "notifications/progress")) {
        lines.push_back(*line);
        EXPECT_TRUE(contains(*line, R"("progress":)" + std::to_string(lines.size()) + R"(,"progressToken":"hb-1")"));
    }
    EXPECT_EQ(line, R"({"jsonrpc":"2.0","id":7,"result":)" + kImage + "}");
    EXPECT_GE(lines.size(), 2u);
    EXPECT_LE(lines.size(), 5u);
    std::this_thread::sleep_for(600ms); // three intervals: a heartbeat that went on would show
    int after = 0;
    while (bridge.readLine(0ms)) ++after;
    EXPECT_LE(after, 1) << "the heartbeat goes on after the answer";

    // An allow that comes after the deadline lets nothing through; the bridge hangs up.
    const auto started = std::chrono::steady_clock::now();
    const std::string late = bridge.send(callLine("8", "late_tool"));
    EXPECT_TRUE(contains(late, R"({"id":8)") && contains(late, "timed out") && contains(late, "(fail-closed)")) << late;
    EXPECT_EQ(member(gateway.records("toolcall", 5).at(4), "decision"), "abandoned");
    // A cancelled call is withdrawn: no answer, no call, even though the gateway allows it later.
    ASSERT_TRUE(bridge.writeLine(callLine("9", "slow_tool")));
    ASSERT_TRUE(bridge.writeLine(R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":9}})"));
    std::this_thread::sleep_for(3500ms - (std::chrono::steady_clock::now() - started));
    EXPECT_EQ(bridge.send(callLine("10", "other")), R"({"jsonrpc":"2.0","id":10,"result":)" + kImage + "}");

    EXPECT_EQ(bridge.finish(), "");
    EXPECT_EQ(readFile(record), list + "\n" + odd + "\n" + notification + "\n" + relisted + "\n" + slow + "\n" +
                                    callLine("10", "other") + "\n");
}

} // namespace
} // namespace sentrova::e2e
