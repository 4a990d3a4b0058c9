#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/AmbiguousCallGuard.hpp"
#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/RequestUUID.hpp"

using namespace std::chrono_literals;
using namespace sentrova;

namespace {

// Captures every write of one side; an optional hook sees each write as it happens.
class Sink {
public:
    MCPBridgeRouter::WriteOperation operation() {
        return [this](std::string_view bytes) {
            std::function<void(std::string_view)> hook;
            {
                std::lock_guard<std::mutex> hold(lock_);
                writes_.emplace_back(bytes);
                hook = hook_;
            }
            if (hook) {
                hook(bytes);
            }
        };
    }
    std::vector<std::string> writes() const {
        std::lock_guard<std::mutex> hold(lock_);
        return writes_;
    }
    void setHook(std::function<void(std::string_view)> hook) {
        std::lock_guard<std::mutex> hold(lock_);
        hook_ = std::move(hook);
    }
    void clear() {
        std::lock_guard<std::mutex> hold(lock_);
        writes_.clear();
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> writes_;
    std::function<void(std::string_view)> hook_;
};

// Records queries and events in one log (to check their order) and answers with scripted decisions.
class FakeGateway final : public BridgeGatewayClient {
public:
    BridgeDecision requestDecision(const BridgeToolCallQuery& query) override {
        std::function<void()> during;
        std::chrono::milliseconds delay{};
        BridgeDecision decision = BridgeDecision::allow();
        {
            std::lock_guard<std::mutex> hold(lock_);
            queries_.push_back(query);
            log_.push_back("query:" + query.tool);
            if (!decisions_.empty()) {
                decision = decisions_.front();
                decisions_.pop_front();
            }
            during = during_;
            delay = delay_;
        }
        if (during) {
            during();
        }
        std::this_thread::sleep_for(delay);
        return decision;
    }
    void postEvent(const BridgeEvent& event) override {
        std::lock_guard<std::mutex> hold(lock_);
        events_.push_back(event);
        log_.push_back(std::holds_alternative<BridgeEvent::Screenshot>(event.payload()) ? "screenshot" : "pinViolation");
    }

    void script(BridgeDecision decision) {
        std::lock_guard<std::mutex> hold(lock_);
        decisions_.push_back(std::move(decision));
    }
    void whileDeciding(std::function<void()> during) {
        std::lock_guard<std::mutex> hold(lock_);
        during_ = std::move(during);
    }
    void setDelay(std::chrono::milliseconds delay) {
        std::lock_guard<std::mutex> hold(lock_);
        delay_ = delay;
    }
    std::vector<BridgeToolCallQuery> queries() const {
        std::lock_guard<std::mutex> hold(lock_);
        return queries_;
    }
    std::vector<BridgeEvent> events() const {
        std::lock_guard<std::mutex> hold(lock_);
        return events_;
    }
    std::vector<std::string> log() const {
        std::lock_guard<std::mutex> hold(lock_);
        return log_;
    }

private:
    mutable std::mutex lock_;
    std::deque<BridgeDecision> decisions_;
    std::function<void()> during_;
    std::chrono::milliseconds delay_{0};
    std::vector<BridgeToolCallQuery> queries_;
    std::vector<BridgeEvent> events_;
    std::vector<std::string> log_;
};

// Records every timer and fires the live ones only when the test says so.
class FakeScheduler final : public BridgeScheduler {
public:
    struct Handle final : BridgeCancellable {
        std::atomic<bool> cancelled{false};
        void cancel() override { cancelled = true; }
    };
    struct Timer {
        double interval;
        std::function<void()> action;
        std::shared_ptr<Handle> handle;
    };

    std::shared_ptr<BridgeCancellable> scheduleRepeating(double everySeconds, std::function<void()> action) override {
        auto handle = std::make_shared<Handle>();
        timers.push_back({everySeconds, std::move(action), handle});
        return handle;
    }
    void fireLive() {
        for (Timer& timer : timers) {
            if (!timer.handle->cancelled) {
                timer.action();
            }
        }
    }
    bool allCancelled() const {
        for (const Timer& timer : timers) {
            if (!timer.handle->cancelled) {
                return false;
            }
        }
        return true;
    }

    std::vector<Timer> timers; // touched only by the client-input thread in these tests
};

// 8-4-4-4-12 upper-case hex digits, version 4, RFC 4122 variant.
bool isUpperCaseUUIDv4(const std::string& text) {
    if (text.size() != 36 || text[14] != '4' || std::string_view("89AB").find(text[19]) == std::string_view::npos) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool hyphenPlace = i == 8 || i == 13 || i == 18 || i == 23;
        const bool hexDigit = (text[i] >= '0' && text[i] <= '9') || (text[i] >= 'A' && text[i] <= 'F');
        if (hyphenPlace ? text[i] != '-' : !hexDigit) {
            return false;
        }
    }
    return true;
}

std::string withNewline(std::string_view line) {
    return std::string(line) + "\n";
}

const std::string kMalformedDeny3 =
    "{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":{\"content\":[{\"text\":\"Denied by Sentrova policy: tool was not "
    "approved \xE2\x80\x94 the request was malformed. Do not retry this exact call; ask the user or choose a "
    "different action.\",\"type\":\"text\"}],\"isError\":true}}\n";

std::string malformedDeny(const Json& id) {
    return MCPWire::denyResult(id, MCPBridgeRouter::denyMessage("tool", "the request was malformed", false)) + "\n";
}

std::string heartbeatLine(const Json& token, std::int64_t progress) {
    return MCPWire::progressNotification(token, progress, "Awaiting Sentrova approval\xE2\x80\xA6") + "\n";
}

Json parsed(std::string_view text) {
    std::optional<Json> value = parseJson(text);
    EXPECT_TRUE(value.has_value()) << text;
    return value ? *value : Json();
}

class MCPBridgeRouterTests : public ::testing::Test {
protected:
    void SetUp() override { build(config); }

    void build(MCPBridgeRouter::Config withConfig) {
        router = std::make_shared<MCPBridgeRouter>(std::move(withConfig), client.operation(), server.operation(),
                                                   gateway, scheduler);
    }
    void announce(const std::string& id, const std::string& toolsJson) {
        router->handleClientLine(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/list"})");
        router->handleServerLine(R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":{"tools":)" + toolsJson + "}}");
    }
    void call(const std::string& id, const std::string& tool, const std::string& paramsExtra = "") {
        router->handleClientLine(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/call","params":{"name":")" +
                                 tool + "\"" + paramsExtra + "}}");
    }

    MCPBridgeRouter::Config config{"worker-7", std::nullopt, "npx -y some-server", 15.0};
    Sink client;
    Sink server;
    std::shared_ptr<FakeGateway> gateway = std::make_shared<FakeGateway>();
    std::shared_ptr<FakeScheduler> scheduler = std::make_shared<FakeScheduler>();
    std::shared_ptr<MCPBridgeRouter> router;
};

} // namespace

TEST_F(MCPBridgeRouterTests, RelaysUnreadableLinesAndPlainMessagesByteForByte) {
    const std::vector<std::string> lines = {
        "server log line, not JSON\r",
        R"([{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"x"}}])",
        "42",
        R"({"method":"tools/call", "id":1)",
        "{ \"params\" : {\"b\":\"a\\/b\\u00e9\\n\", \"a\":1.50}, \"method\":\"ping\" ,\"id\":\"x\", \"extra\":null }\r",
    };
    for (const std::string& line : lines) {
        router->handleClientLine(line);
        router->handleServerLine(line);
    }
    std::vector<std::string> expected;
    for (const std::string& line : lines) {
        expected.push_back(withNewline(line));
    }
    EXPECT_EQ(server.writes(), expected);
    EXPECT_EQ(client.writes(), expected);
    EXPECT_TRUE(gateway->queries().empty());
}

TEST_F(MCPBridgeRouterTests, CapturesToolListsBeforeTheAnswerIsWrittenAndMatchesIdsByKind) {
    const std::string tool = R"({"name":"echo","annotations":{"readOnlyHint":true,"destructiveHint":false}})";
    std::optional<ToolPinTable::ToolPin> pinAtWrite;
    client.setHook([&](std::string_view) { pinAtWrite = router->pinTable().pin("echo"); });

    const std::string request = R"({"jsonrpc":"2.0","id":5,"method":"tools/list"})";
    router->handleClientLine(request);
    EXPECT_EQ(server.writes(), std::vector<std::string>{withNewline(request)});
    const std::string answer = R"({"jsonrpc":"2.0","id":5,"result":{"tools":[)" + tool + "]}}";
    router->handleServerLine(answer);
    ASSERT_TRUE(pinAtWrite.has_value()) << "pins must be in place when the client sees the list";
    EXPECT_EQ(pinAtWrite->hash, MCPWire::pinHash(parsed(tool)));
    EXPECT_EQ(pinAtWrite->risk, BridgeRisk::safe);
    EXPECT_EQ(client.writes(), std::vector<std::string>{withNewline(answer)});

    // The key is gone: a second answer with id 5 captures nothing.
    router->handleServerLine(R"({"jsonrpc":"2.0","id":5,"result":{"tools":[{"name":"late"}]}})");
    EXPECT_FALSE(router->pinTable().pin("late"));

    // String and numeric ids never match each other.
    router->handleClientLine(R"({"jsonrpc":"2.0","id":"7","method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":7,"result":{"tools":[{"name":"numeric7"}]}})");
    EXPECT_FALSE(router->pinTable().pin("numeric7"));
    router->handleServerLine(R"({"jsonrpc":"2.0","id":"7","result":{"tools":[{"name":"string7"}]}})");
    EXPECT_TRUE(router->pinTable().pin("string7"));
    router->handleClientLine(R"({"jsonrpc":"2.0","id":8,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":"8","result":{"tools":[{"name":"string8"}]}})");
    EXPECT_FALSE(router->pinTable().pin("string8"));

    // 1.0 and 1 are the same number.
    router->handleClientLine(R"({"jsonrpc":"2.0","id":1.0,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":1,"result":{"tools":[{"name":"one"}]}})");
    EXPECT_TRUE(router->pinTable().pin("one"));

    // A null id records nothing and matches nothing; a list with a non-object captures nothing.
    router->handleClientLine(R"({"jsonrpc":"2.0","id":null,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":null,"result":{"tools":[{"name":"nullid"}]}})");
    EXPECT_FALSE(router->pinTable().pin("nullid"));
    router->handleClientLine(R"({"jsonrpc":"2.0","id":9,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":9,"result":{"tools":[{"name":"mixed"},"x"]}})");
    EXPECT_FALSE(router->pinTable().pin("mixed"));
}

TEST_F(MCPBridgeRouterTests, ServerNotificationsAndRequestsAffectTrackingAsDescribed) {
    router->handleClientLine(R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})");
    // list_changed marks the table stale, is relayed, and leaves a pending id of the same value alone.
    const std::string changed = R"({"jsonrpc":"2.0","method":"notifications/tools/list_changed","id":3})";
    router->handleServerLine(changed);
    EXPECT_TRUE(router->pinTable().isStale());
    EXPECT_EQ(client.writes(), std::vector<std::string>{withNewline(changed)});
    router->handleServerLine(R"({"jsonrpc":"2.0","id":3,"result":{"tools":[{"name":"kept"}]}})");
    EXPECT_TRUE(router->pinTable().pin("kept"));
    EXPECT_FALSE(router->pinTable().isStale());

    // A server-to-client request with a pending id takes the key like an answer would.
    router->handleClientLine(R"({"jsonrpc":"2.0","id":4,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":4,"method":"sampling/createMessage","params":{}})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":4,"result":{"tools":[{"name":"tooLate"}]}})");
    EXPECT_FALSE(router->pinTable().pin("tooLate"));
}

TEST_F(MCPBridgeRouterTests, ForwardedAnswersReportTheirFirstImageBeforeTheyAreWritten) {
    call("11", "shot");
    ASSERT_EQ(server.writes().size(), 1u);
    std::size_t eventsAtWrite = 0;
    client.setHook([&](std::string_view) { eventsAtWrite = gateway->events().size(); });
    const std::string answer =
        R"({"jsonrpc":"2.0","id":11,"result":{"content":[{"type":"text","text":"hi"},{"type":"image","data":"QUJD","mimeType":"image/jpeg"},{"type":"image","data":"Rk9P"}]}})";
    router->handleServerLine(answer);
    EXPECT_EQ(eventsAtWrite, 1u);
    EXPECT_EQ(client.writes(), std::vector<std::string>{withNewline(answer)});
    ASSERT_EQ(gateway->events().size(), 1u);
    EXPECT_EQ(gateway->events()[0], BridgeEvent::screenshot("worker-7", "QUJD", "image/jpeg"));

    // The key is used up; an id that was never forwarded reports nothing either.
    router->handleServerLine(answer);
    router->handleServerLine(R"({"jsonrpc":"2.0","id":12,"result":{"content":[{"type":"image","data":"QUJD"}]}})");
    EXPECT_EQ(gateway->events().size(), 1u);
}

TEST_F(MCPBridgeRouterTests, DenyMessagesAreExact) {
    EXPECT_EQ(MCPBridgeRouter::denyMessage("read_file", "Blocked by rule 4", false),
              "Denied by Sentrova policy: read_file was not approved \xE2\x80\x94 Blocked by rule 4. Do not retry "
              "this exact call; ask the user or choose a different action.");
    EXPECT_EQ(MCPBridgeRouter::denyMessage("read_file", "", false),
              "Denied by Sentrova policy: read_file was not approved. Do not retry this exact call; ask the user or "
              "choose a different action.");
    EXPECT_EQ(MCPBridgeRouter::denyMessage("rm", "Denied by Sentrova policy.", true),
              "Denied by Sentrova (tool-pin violation): rm changed since it was last approved \xE2\x80\x94 Denied by "
              "Sentrova policy.. Do not retry this exact call; ask the user or choose a different action.");
}

TEST_F(MCPBridgeRouterTests, MalformedCallsAreDeniedAndNotificationsPassUnasked) {
    router->handleClientLine(R"({"jsonrpc":"2.0","id":3,"method":"tools/call"})");
    router->handleClientLine(R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":5}})");
    router->handleClientLine(R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":"x"})");
    EXPECT_EQ(client.writes(), std::vector<std::string>(3, kMalformedDeny3));
    router->handleClientLine(R"({"jsonrpc":"2.0","id":"a/b","method":"tools/call","params":{}})");
    EXPECT_EQ(client.writes().back(), malformedDeny(Json::string("a/b")));
    EXPECT_TRUE(server.writes().empty());

    const std::string notification = R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"x"}} )";
    router->handleClientLine(notification);
    EXPECT_EQ(server.writes(), std::vector<std::string>{withNewline(notification)});
    EXPECT_TRUE(gateway->queries().empty());
    EXPECT_TRUE(scheduler->timers.empty());
}

TEST_F(MCPBridgeRouterTests, QueriesCarryIdentityRiskAndCanonicalArguments) {
    const std::string first =
        R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"fetch","arguments":{"b":1,"a":"x/y"}}})";
    router->handleClientLine(first);
    for (const char* arguments : {"", R"(,"arguments":null)", R"(,"arguments":"s")", R"(,"arguments":4)"}) {
        call("2", "fetch", arguments);
    }
    call("3", "fetch", R"(,"arguments":[1,{"z":true,"y":"\/"}])");
    const auto queries = gateway->queries();
    ASSERT_EQ(queries.size(), 6u);
    const BridgeToolCallQuery& q = queries[0];
    EXPECT_EQ(q.workerName, "worker-7");
    EXPECT_FALSE(q.provider.has_value());
    EXPECT_EQ(q.serverCommand, "npx -y some-server");
    EXPECT_EQ(q.tool, "fetch");
    EXPECT_EQ(q.argumentsJSON, R"({"a":"x/y","b":1})");
    EXPECT_EQ(q.risk, BridgeRisk::caution);
    EXPECT_EQ(q.pinHash, "");
    EXPECT_FALSE(q.pinChanged);
    EXPECT_FALSE(q.previousPinHash.has_value());
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(queries[i].argumentsJSON, "{}") << i;
    }
    EXPECT_EQ(queries[5].argumentsJSON, R"([1,{"y":"/","z":true}])");

    std::set<std::string> ids;
    for (const auto& query : queries) {
        EXPECT_TRUE(isUpperCaseUUIDv4(query.requestID)) << query.requestID;
        ids.insert(query.requestID);
    }
    EXPECT_EQ(ids.size(), queries.size());
    // Allowed (the default): relayed exactly as sent; the empty pin was approved, so no change.
    EXPECT_EQ(server.writes().front(), withNewline(first));

    config.provider = "anthropic";
    build(config);
    announce("1", R"([{"name":"rm","annotations":{}}])");
    call("2", "rm");
    const BridgeToolCallQuery last = gateway->queries().back();
    EXPECT_EQ(last.provider, std::optional<std::string>("anthropic"));
    EXPECT_EQ(last.risk, BridgeRisk::critical);
    EXPECT_EQ(last.pinHash, MCPWire::pinHash(parsed(R"({"name":"rm","annotations":{}})")));
}

TEST_F(MCPBridgeRouterTests, PinViolationsAreReportedBeforeTheQueryUntilAnApprovalMovesThePin) {
    const std::string v1 = R"({"name":"rm","description":"remove one file"})";
    const std::string v2 = R"({"name":"rm","description":"remove every file"})";
    const std::string h1 = MCPWire::pinHash(parsed(v1));
    const std::string h2 = MCPWire::pinHash(parsed(v2));
    announce("1", "[" + v1 + "]");
    call("2", "rm"); // allowed: h1 approved
    announce("3", "[" + v2 + "]");

    gateway->script(BridgeDecision::deny("no"));
    call("4", "rm");
    const BridgeEvent violation = BridgeEvent::pinViolation("worker-7", "rm", h1, h2);
    EXPECT_EQ(gateway->events(), std::vector<BridgeEvent>{violation});
    EXPECT_EQ(gateway->log(), (std::vector<std::string>{"query:rm", "pinViolation", "query:rm"}));
    EXPECT_EQ(client.writes().back(),
              MCPWire::denyResult(Json::integer(4), MCPBridgeRouter::denyMessage("rm", "no", true)) + "\n");
    EXPECT_EQ(server.writes().size(), 3u) << "two lists and one call; a denied call never reaches the server";

    // The deny moved nothing: the next call is still a change from h1; this one is allowed.
    call("5", "rm");
    auto queries = gateway->queries();
    EXPECT_TRUE(queries.back().pinChanged);
    EXPECT_EQ(queries.back().previousPinHash, std::optional<std::string>(h1));
    EXPECT_EQ(queries.back().pinHash, h2);
    EXPECT_EQ(gateway->events().size(), 2u);

    call("6", "rm");
    queries = gateway->queries();
    EXPECT_FALSE(queries.back().pinChanged);
    EXPECT_EQ(gateway->events().size(), 2u);
    EXPECT_EQ(server.writes().size(), 5u);
}

TEST_F(MCPBridgeRouterTests, HeartbeatsEchoTheTokenAndCountFromOnePerCall) {
    std::size_t timersAtQuery = 0;
    gateway->whileDeciding([&] {
        timersAtQuery = scheduler->timers.size();
        scheduler->fireLive();
        scheduler->fireLive();
    });
    bool cancelledBeforeAnswer = false;
    client.setHook([&](std::string_view bytes) {
        if (bytes.find("\"result\"") != std::string_view::npos) {
            cancelledBeforeAnswer = scheduler->allCancelled();
        }
    });

    gateway->script(BridgeDecision::deny("slow"));
    call("1", "t", R"(,"_meta":{"progressToken":"abc"})");
    EXPECT_EQ(timersAtQuery, 1u);
    EXPECT_TRUE(cancelledBeforeAnswer);
    EXPECT_EQ(scheduler->timers.back().interval, 15.0);
    const std::string firstBeat =
        "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/progress\",\"params\":{\"message\":\"Awaiting Sentrova "
        "approval\xE2\x80\xA6\",\"progress\":1,\"progressToken\":\"abc\"}}\n";
    auto writes = client.writes();
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[0], firstBeat);
    EXPECT_EQ(writes[1], heartbeatLine(Json::string("abc"), 2));

    // The next call has its own count; numbers and booleans are echoed as they came.
    client.clear();
    call("2", "t", R"(,"_meta":{"progressToken":7})");
    call("3", "t", R"(,"_meta":{"progressToken":true})");
    writes = client.writes();
    ASSERT_EQ(writes.size(), 4u);
    EXPECT_EQ(writes[0], heartbeatLine(Json::integer(7), 1));
    EXPECT_EQ(writes[1], heartbeatLine(Json::integer(7), 2));
    EXPECT_EQ(writes[2], heartbeatLine(Json::boolean(true), 1));
    EXPECT_NE(writes[0].find("\"progressToken\":7}"), std::string::npos);
    EXPECT_TRUE(scheduler->allCancelled());

    // Unusable tokens arm nothing.
    client.clear();
    for (const char* meta : {R"(,"_meta":{"progressToken":null})", R"(,"_meta":{"progressToken":{}})",
                             R"(,"_meta":{"progressToken":[1]})", R"(,"_meta":{})", R"(,"_meta":"abc")", ""}) {
        call("4", "t", meta);
    }
    EXPECT_EQ(scheduler->timers.size(), 3u);
    EXPECT_TRUE(client.writes().empty());
}

TEST_F(MCPBridgeRouterTests, HeartbeatsOnTheRealSchedulerStopWithTheDecision) {
    auto realScheduler = std::make_shared<DispatchBridgeScheduler>();
    config.heartbeatInterval = 0.05;
    router = std::make_shared<MCPBridgeRouter>(config, client.operation(), server.operation(), gateway, realScheduler);
    gateway->setDelay(400ms);
    gateway->script(BridgeDecision::deny(""));
    call("1", "t", R"(,"_meta":{"progressToken":"p"})");
    const std::size_t atReturn = client.writes().size();
    std::this_thread::sleep_for(300ms);
    const auto writes = client.writes();
    EXPECT_LE(writes.size(), atReturn + 1) << "at most one tick that was already under way";
    std::size_t beats = 0;
    for (const std::string& line : writes) {
        if (line.find("notifications/progress") != std::string::npos) {
            ++beats;
            EXPECT_EQ(line, heartbeatLine(Json::string("p"), static_cast<std::int64_t>(beats)));
        }
    }
    EXPECT_GE(beats, 2u);
    EXPECT_EQ(writes.size(), beats + 1);
}

TEST_F(MCPBridgeRouterTests, AmbiguousToolCallsAreNeverRelayed) {
    const std::vector<std::pair<std::string, Json>> answered = {
        {R"({"jsonrpc":"2.0","id":1,"method":"tools/list","Method":"tools/call","params":{"name":"x"}})",
         Json::integer(1)},
        {R"({"jsonrpc":"2.0","id":2,"METHOD":"tools/call","params":{"name":"x"}})", Json::integer(2)},
        {R"({"jsonrpc":"2.0","id":3,"method":"tools/call","method":"tools/list"})", Json::integer(3)},
        {R"({"jsonrpc":"2.0","id":4,"method":"tools/call","param)" "\xC5\xBF" R"(":{"name":"evil"},"params":{"name":"safe"}})",
         Json::integer(4)},
        {R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"safe","name":"evil"}})", Json::integer(5)},
        {R"({"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"a","Arguments":{}}})", Json::integer(6)},
        {R"({"jsonrpc":"2.0","ID":"v","Method":"tools/call","params":{"name":"x"}})", Json::string("v")},
        {R"({"jsonrpc":"2.0","id":7,"Id":8,"method":"tools/call","params":{"name":"x"}})", Json::integer(7)},
        // Only a variant id: the bridge alone would relay it as a notification, a Go server would run it.
        {R"({"jsonrpc":"2.0","Id":9,"method":"tools/call","params":{"name":"x"}})", Json::integer(9)},
    };
    std::vector<std::string> expected;
    for (const auto& [line, id] : answered) {
        router->handleClientLine(line);
        expected.push_back(malformedDeny(id));
    }
    // Without any id there is nobody to answer: dropped.
    router->handleClientLine(R"({"jsonrpc":"2.0","Method":"tools/call","params":{"name":"x"}})");
    router->handleClientLine(R"({"jsonrpc":"2.0","method":"tools/call","params":{"name":"x","NAME":"y"}})");
    EXPECT_EQ(client.writes(), expected);
    EXPECT_TRUE(server.writes().empty());
    EXPECT_TRUE(gateway->queries().empty());

    // No spelling of "method" asks for tools/call: relayed as before.
    const std::string list = R"({"jsonrpc":"2.0","id":9,"Method":"tools/list","params":{"name":"a","NAME":"b"}})";
    router->handleClientLine(list);
    EXPECT_EQ(server.writes(), std::vector<std::string>{withNewline(list)});
}

TEST(AmbiguousCallGuardTests, FoldsNamesTheWayGoMatchesStructFields) {
    using AmbiguousCallGuard::foldsTo;
    EXPECT_TRUE(foldsTo("PARAMS", "params"));
    EXPECT_TRUE(foldsTo("param\xC5\xBF", "params"));          // U+017F long s
    EXPECT_TRUE(foldsTo("\xE2\x84\xAA", "k"));                 // U+212A Kelvin sign
    EXPECT_TRUE(foldsTo("_Meta", "_meta"));
    EXPECT_FALSE(foldsTo("params", "param"));
    EXPECT_FALSE(foldsTo("param", "params"));
    EXPECT_FALSE(foldsTo("\xC4\xB0" "D", "id"));               // U+0130 has no simple folding to "i"
    EXPECT_FALSE(foldsTo("\xC4\xB1" "d", "id"));               // nor U+0131
    EXPECT_FALSE(foldsTo("\xC5\xBF", "k"));
    EXPECT_FALSE(foldsTo("", "id"));

    const Json plain = parsed(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"x"}})");
    EXPECT_FALSE(AmbiguousCallGuard::inspect(plain).ambiguous);
}

TEST(RequestUUIDTests, VersionAndVariantBitsAreSet) {
    std::array<std::uint8_t, 16> ones{};
    ones.fill(0xFF);
    EXPECT_EQ(formatUUIDv4(ones), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(formatUUIDv4({}), "00000000-0000-4000-8000-000000000000");
    EXPECT_TRUE(isUpperCaseUUIDv4(formatUUIDv4({})));
    EXPECT_FALSE(isUpperCaseUUIDv4("00000000-0000-4000-8000-00000000000a"));
    EXPECT_NE(makeRequestUUID(), makeRequestUUID());
}
