#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>
#include <vector>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

using namespace test;

TEST(BridgeSchedulerTests, RunsOneIntervalLaterOnAnotherThreadNeverOverlappingAndMergingLateFirings) {
    DispatchBridgeScheduler scheduler;
    std::mutex lock;
    std::vector<double> starts;
    std::atomic<bool> busy{false}, onCallerThread{false};
    std::atomic<int> overlaps{0}, otherRuns{0};
    const auto origin = Clock::now();
    const auto caller = std::this_thread::get_id();
    // Both timers mark themselves busy while they run: the worker runs one action at a time.
    const auto run = [&](auto body) { overlaps += busy.exchange(true) ? 1 : 0, body(), busy = false; };
    auto handle = scheduler.scheduleRepeating(0.1, [&] {
        run([&] {
            const bool firstRun = (std::lock_guard<std::mutex>(lock), starts.push_back(secondsSince(origin)), starts.size() == 1);
            onCallerThread = onCallerThread || std::this_thread::get_id() == caller;
            if (firstRun) std::this_thread::sleep_for(450ms); // four firings fall due meanwhile
        });
    });
    auto other = scheduler.scheduleRepeating(0.01, [&] { run([&] { std::this_thread::sleep_for(2ms), ++otherRuns; }); });
    ASSERT_TRUE(eventually([&] { return std::lock_guard<std::mutex>(lock), starts.size() >= 4; }));
    handle->cancel();
    other->cancel();
    std::lock_guard<std::mutex> hold(lock);
    EXPECT_GE(starts[0], 0.09);
    EXPECT_FALSE(onCallerThread);
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_GT(otherRuns.load(), 0);
    // One merged run right after the long one, then the normal rhythm: no burst of catch-up runs.
    EXPECT_GE(starts[1] - starts[0], 0.44);
    for (std::size_t i = 2; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], 0.02) << "run " << i;
}

TEST(BridgeSchedulerTests, CancelWaitsForTheRunUnderWayAndNoneStartsAfterItNorAfterTheSchedulerEnds) {
    std::atomic<int> never{0}, runs{0}, startedAfterCancel{0}, selfRuns{0}, tinyRuns{0};
    std::atomic<bool> inAction{false}, cancelReturned{false};
    std::shared_ptr<BridgeCancellable> survivor;
    {
        DispatchBridgeScheduler scheduler;
        scheduler.scheduleRepeating(0.05, [&] { ++never; })->cancel();
        scheduler.scheduleRepeating(0.01, [&] { ++never; }); // handle dropped at once: cancelled
        survivor = scheduler.scheduleRepeating(0.01, [] {});
        std::vector<std::shared_ptr<BridgeCancellable>> unusable;
        for (double interval : {0.0, -1.0, std::nan(""), double(INFINITY), 1.0e300}) unusable.push_back(scheduler.scheduleRepeating(interval, [&] { ++never; }));
        auto handle = scheduler.scheduleRepeating(0.01, [&] { inAction = true, startedAfterCancel += cancelReturned, ++runs, std::this_thread::sleep_for(3ms), inAction = false; });
        // An action that cancels its own timer is the run in progress; none follows it.
        std::mutex handleLock;
        std::shared_ptr<BridgeCancellable> self;
        (std::lock_guard<std::mutex>(handleLock), self = scheduler.scheduleRepeating(0.01, [&] {
             if (std::lock_guard<std::mutex>(handleLock), ++selfRuns == 3) self->cancel();
         }));
        const auto start = Clock::now();
        auto tiny = scheduler.scheduleRepeating(1.0e-9, [&] { ++tinyRuns; });
        ASSERT_TRUE(eventually([&] { return runs.load() >= 3 && inAction.load(); }));
        std::thread racing([&] { handle->cancel(); });
        handle->cancel(); // twice and from two threads at once: no error
        racing.join();
        EXPECT_FALSE(inAction.load()); // what the caller writes next comes after the action's output
        cancelReturned = true;
        std::this_thread::sleep_for(200ms);
        tiny->cancel();
        // Tiny intervals run at most once per 10 ms floor (plus the one under way when cancelled).
        EXPECT_LE(tinyRuns.load(), static_cast<int>(secondsSince(start) / 0.010) + 2);
        for (auto& timer : unusable) timer->cancel();
    } // joins the worker although a timer is still armed
    survivor->cancel();
    EXPECT_EQ(never.load() + startedAfterCancel.load(), 0);
    EXPECT_EQ(selfRuns.load(), 3);
    EXPECT_GE(tinyRuns.load(), 1);
}

} // namespace
} // namespace sentrova
