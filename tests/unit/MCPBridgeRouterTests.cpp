// Router behaviour the end-to-end runs cannot pin down: exact ordering against fakes, pins captured
// before the client sees a list, heartbeat timers, pending and cancelled decisions.

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/RequestUUID.hpp"
#include "TestSupport.hpp"

using namespace sentrova;

namespace {

using Lines = std::vector<std::string>;

template <typename F> auto locked(std::mutex& lock, F f) { return std::lock_guard<std::mutex>(lock), f(); }

struct Handle final : BridgeCancellable {
    std::atomic<bool> cancelled{false};
    void cancel() override { cancelled = true; }
};

// Captures every write of one side; an optional hook sees each write as it happens.
struct Sink {
    MCPBridgeRouter::WriteOperation operation() {
        return [this](std::string_view bytes) {
            std::function<void(std::string_view)> seen;
            locked(lock, [&] { writes.emplace_back(bytes), seen = hook; });
            if (seen) seen(bytes);
        };
    }
    Lines all() { return locked(lock, [&] { return writes; }); }
    std::mutex lock;
    Lines writes;
    std::function<void(std::string_view)> hook;
};

// Records queries ("query:<tool>") and event bodies in one log (to check their order) and answers with scripted
// decisions, or, with holdDecisions, waits until the test decides through decide().
struct FakeGateway final : BridgeGatewayClient {
    BridgeDecision requestDecision(const BridgeToolCallQuery&) override { return BridgeDecision::allow(); }
    std::shared_ptr<BridgeCancellable> startDecision(const BridgeToolCallQuery& query, DecisionHandler onDecision) override {
        std::unique_lock<std::mutex> hold(lock);
        queries.push_back(query);
        log.push_back("query:" + query.tool);
        if (holdDecisions) return held.emplace_back(std::make_shared<Handle>(), std::move(onDecision)).first;
        BridgeDecision decision = BridgeDecision::allow();
        if (!decisions.empty()) decision = decisions.front(), decisions.pop_front();
        hold.unlock();
        if (whileDeciding) whileDeciding();
        onDecision(decision);
        return nullptr;
    }
    // As the gateway client does: the handler is given up once used.
    void decide(std::size_t index, BridgeDecision decision) {
        DecisionHandler handler;
        locked(lock, [&] { handler = std::move(held[index].second); });
        handler(std::move(decision));
    }
    void postEvent(const BridgeEvent& event) override {
        locked(lock, [&] { log.push_back(event.httpBody()); });
    }
    std::mutex lock; // tests read the records only while no call is under way
    std::deque<BridgeDecision> decisions;
    std::function<void()> whileDeciding;
    bool holdDecisions = false;
    std::deque<std::pair<std::shared_ptr<Handle>, DecisionHandler>> held;
    std::vector<BridgeToolCallQuery> queries;
    Lines log;
};

// Records every timer and fires the live ones only when the test says so.
struct FakeScheduler final : BridgeScheduler {
    std::shared_ptr<BridgeCancellable> scheduleRepeating(double everySeconds, std::function<void()> action) override {
        timers.push_back({everySeconds, std::move(action), std::make_shared<Handle>()});
        return std::get<2>(timers.back());
    }
    void fireLive() { for (auto& [interval, action, handle] : timers) if (!handle->cancelled) action(); }
    bool allCancelled() const { return std::all_of(timers.begin(), timers.end(), [](const auto& timer) { return std::get<2>(timer)->cancelled.load(); }); }
    std::vector<std::tuple<double, std::function<void()>, std::shared_ptr<Handle>>> timers; // client-input thread only
};


struct Bridge {
    void call(const std::string& id, const std::string& tool, const std::string& paramsExtra = "") {
        router->handleClientLine(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/call","params":{"name":")" +
                                 tool + "\"" + paramsExtra + "}}");
    }
    // The pin a call of the tool carries to the gateway: what the router captured for it.
    BridgeToolCallQuery queryFor(const std::string& tool) {
        call("900", tool);
        return gateway->queries.back();
    }

    Sink client, server;
    std::shared_ptr<FakeGateway> gateway = std::make_shared<FakeGateway>();
    std::shared_ptr<FakeScheduler> scheduler = std::make_shared<FakeScheduler>();
    std::shared_ptr<MCPBridgeRouter> router = std::make_shared<MCPBridgeRouter>(
        MCPBridgeRouter::Config{"worker-7", std::nullopt, "npx -y some-server", 15.0}, client.operation(),
        server.operation(), gateway, scheduler);
};

class MCPBridgeRouterTests : public ::testing::Test, protected Bridge {};

} // namespace

// cases/router.txt: scenarios of lines in and, in order, what must come out.
TEST(MCPBridgeRouterScriptTests, EveryScenarioWritesWhatItLists) {
    std::unique_ptr<Bridge> b;
    std::size_t toClient = 0, toServer = 0, logged = 0;
    const auto next = [](Sink& sink, std::size_t& seen) { Lines w = sink.all(); return seen < w.size() ? w[seen++] : "<nothing>\n"; };
    const auto done = [&] { EXPECT_TRUE(!b || b->client.all().size() + b->server.all().size() == toClient + toServer) << "writes not listed"; };
    for (const auto& row : test::caseRows("router.txt")) {
        const std::string& op = row[0];
        std::string got, want = row.back(); // rows that check something set got
        if (op == "=") done(), b = std::make_unique<Bridge>(), toClient = toServer = logged = 0;
        if (op == "c" || op == "c>") b->router->handleClientLine(row[1]);
        if (op == "s" || op == "s>") b->router->handleServerLine(row[1]);
        if (op == "c>" || op == ">s") got = next(b->server, toServer), want += "\n";
        if (op == "s>" || op == ">c") got = next(b->client, toClient), want += "\n";
        if (op == "deny") b->gateway->decisions.push_back(BridgeDecision::deny(row[1]));
        if (op == "hold") b->gateway->holdDecisions = true;
        if (op == "decide") {
            ASSERT_LT(std::stoul(row[1]), b->gateway->held.size());
            b->gateway->decide(std::stoul(row[1]), row[2] == "allow" ? BridgeDecision::allow() : BridgeDecision::deny(row[2]));
        }
        if (op == "given-up") got = b->gateway->held.at(std::stoul(row[1])).first->cancelled && b->scheduler->allCancelled() ? row[1] : "running";
        if (op == "beats") b->gateway->whileDeciding = [&b, n = std::stoi(row[1])] { for (int i = 0; i < n; ++i) b->scheduler->fireLive(); };
        if (op == "q") {
            const BridgeToolCallQuery query = b->queryFor(row[1]);
            next(b->server, toServer); // the allowed call
            got = (query.pinHash.empty() ? "-" : query.pinHash) + (query.pinChanged ? " from " + query.previousPinHash.value_or("-") : "");
        }
        if (op == "body") got = [query = b->gateway->queries.back()]() mutable { return query.requestID = "-", query.httpBody(); }();
        if (op == "log") while (logged < b->gateway->log.size()) got += (got.empty() ? "" : " ") + b->gateway->log[logged++];
        EXPECT_EQ(got.empty() && op != "log" ? want : got, want) << op << " " << row[1];
    }
    done();
}

TEST_F(MCPBridgeRouterTests, PinsImagesAndHeartbeatsAreDoneWithBeforeTheAnswerIsWritten) {
    const std::string tool = R"({"name":"echo","annotations":{"readOnlyHint":true,"destructiveHint":false}})";
    std::optional<BridgeToolCallQuery> atWrite;
    client.hook = [&](std::string_view) { client.hook = nullptr, atWrite = queryFor("echo"); };
    router->handleClientLine(R"({"jsonrpc":"2.0","id":5,"method":"tools/list"})");
    router->handleServerLine(R"({"jsonrpc":"2.0","id":5,"result":{"tools":[)" + tool + "]}}");
    ASSERT_TRUE(atWrite.has_value());
    EXPECT_EQ(atWrite->pinHash, MCPWire::pinHash(parseJson(tool).value_or(Json()))) << "pins must be in place when the client sees the list";
    EXPECT_EQ(atWrite->risk, BridgeRisk::safe);
    // An answer's image is reported before the answer is written.
    call("11", "shot");
    std::string loggedAtWrite;
    client.hook = [&](std::string_view) { loggedAtWrite = gateway->log.back(); };
    const std::string answer = R"({"jsonrpc":"2.0","id":11,"result":{"content":[{"type":"image","data":"QUJD","mimeType":"image/jpeg"}]}})";
    router->handleServerLine(answer);
    EXPECT_EQ(loggedAtWrite, BridgeEvent::screenshot("worker-7", "QUJD", "image/jpeg").httpBody());
    EXPECT_EQ(client.all().back(), answer + "\n");
    // A call's heartbeat is armed before the query and stopped before the answer is written.
    std::size_t timersAtQuery = 0;
    gateway->whileDeciding = [&] { timersAtQuery = scheduler->timers.size(); };
    bool cancelledBeforeAnswer = false;
    client.hook = [&](std::string_view) { cancelledBeforeAnswer = scheduler->allCancelled(); };
    gateway->decisions = {BridgeDecision::deny("slow")};
    call("1", "t", R"(,"_meta":{"progressToken":"abc"})");
    EXPECT_TRUE(timersAtQuery == 1 && cancelledBeforeAnswer);
    EXPECT_EQ(std::get<0>(scheduler->timers.back()), 15.0);
}

TEST_F(MCPBridgeRouterTests, AtMostMaxPendingDecisionsWaitAndTheEndOfInputWaitsForThemAll) {
    gateway->holdDecisions = true;
    // The next call waits for a slot.
    for (std::size_t i = 0; i < MCPBridgeRouter::maxPendingDecisions; ++i) call(std::to_string(100 + i), "t");
    std::atomic<bool> started{false};
    std::thread pump([&] {
        call("999", "t");
        started = true;
        router->finishPendingDecisions();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(started);
    gateway->decide(0, BridgeDecision::deny("no"));
    while (locked(gateway->lock, [&] { return gateway->held.size(); }) <= MCPBridgeRouter::maxPendingDecisions) std::this_thread::yield();
    for (std::size_t i = 1; i <= MCPBridgeRouter::maxPendingDecisions; ++i) gateway->decide(i, BridgeDecision::allow());
    pump.join();
    EXPECT_EQ(server.all().size(), MCPBridgeRouter::maxPendingDecisions);
}

TEST(RequestUUIDTests, VersionAndVariantBitsAreSet) {
    EXPECT_EQ(formatUUIDv4(std::array<std::uint8_t, 16>{255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255}),
              "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(formatUUIDv4({}), "00000000-0000-4000-8000-000000000000");
    EXPECT_NE(makeRequestUUID(), makeRequestUUID());
}
