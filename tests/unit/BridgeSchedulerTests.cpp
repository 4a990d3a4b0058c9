#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "MCPBridgeCore/BridgeScheduler.hpp"

using namespace std::chrono_literals;
using sentrova::BridgeCancellable;
using sentrova::DispatchBridgeScheduler;
using Clock = std::chrono::steady_clock;

namespace {

// Polls until the condition holds or the (generous) limit passes.
template <typename Condition>
bool eventually(Condition condition) {
    const auto until = Clock::now() + 5000ms;
    while (!condition()) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

} // namespace

TEST(BridgeSchedulerTests, FirstRunComesOneIntervalLaterOnAnotherThread) {
    DispatchBridgeScheduler scheduler;
    std::atomic<int> runs{0};
    std::atomic<double> firstRunAfter{-1.0};
    std::atomic<bool> onCallerThread{false};
    const auto start = Clock::now();
    const auto caller = std::this_thread::get_id();
    auto handle = scheduler.scheduleRepeating(0.3, [&] {
        if (runs.fetch_add(1) == 0) firstRunAfter = secondsSince(start);
        if (std::this_thread::get_id() == caller) onCallerThread = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(runs.load(), 0) << "the action must not run at the moment of scheduling";
    ASSERT_TRUE(eventually([&] { return runs.load() >= 2; }));
    handle->cancel();
    EXPECT_GE(firstRunAfter.load(), 0.29);
    EXPECT_FALSE(onCallerThread.load());
}

TEST(BridgeSchedulerTests, CancelledHandlesNeverRunAgain) {
    DispatchBridgeScheduler scheduler;
    // Cancelled before the first firing: nothing at all.
    std::atomic<int> early{0};
    scheduler.scheduleRepeating(0.05, [&] { ++early; })->cancel();

    // Cancelled twice and from two threads at once: no error, no further run.
    std::atomic<int> raced{0};
    auto contested = scheduler.scheduleRepeating(0.01, [&] { ++raced; });
    ASSERT_TRUE(eventually([&] { return raced.load() >= 1; }));
    std::thread first([&] { contested->cancel(); });
    contested->cancel();
    first.join();
    contested->cancel();
    const int racedAtCancel = raced.load();

    // An action that cancels its own timer is the run in progress; none follows it.
    std::atomic<int> selfRuns{0};
    std::mutex handleLock;
    std::shared_ptr<BridgeCancellable> self;
    {
        std::lock_guard<std::mutex> hold(handleLock);
        self = scheduler.scheduleRepeating(0.01, [&] {
            std::lock_guard<std::mutex> hold(handleLock);
            if (++selfRuns == 3) self->cancel();
        });
    }
    ASSERT_TRUE(eventually([&] { return selfRuns.load() >= 3; }));

    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(early.load(), 0);
    EXPECT_LE(raced.load(), racedAtCancel + 1) << "at most the run already under way may finish";
    EXPECT_EQ(selfRuns.load(), 3);
}

TEST(BridgeSchedulerTests, CancelWaitsForTheRunUnderWayAndNoneStartsAfterIt) {
    DispatchBridgeScheduler scheduler;
    std::atomic<bool> cancelReturned{false};
    std::atomic<int> startedAfterCancel{0};
    std::atomic<int> runs{0};
    std::atomic<bool> inAction{false};
    auto handle = scheduler.scheduleRepeating(0.01, [&] {
        inAction = true;
        if (cancelReturned.load()) ++startedAfterCancel;
        ++runs;
        std::this_thread::sleep_for(3ms);
        inAction = false;
    });
    // Cancel while an action is running: what the caller writes next must come after its output.
    ASSERT_TRUE(eventually([&] { return runs.load() >= 3 && inAction.load(); }));
    handle->cancel();
    EXPECT_FALSE(inAction.load());
    cancelReturned = true;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(startedAfterCancel.load(), 0);
}

TEST(BridgeSchedulerTests, TimersOfOneSchedulerNeverOverlap) {
    DispatchBridgeScheduler scheduler;
    std::atomic<bool> busy{false};
    std::atomic<int> overlaps{0};
    std::atomic<int> runs[2] = {0, 0};
    std::vector<std::shared_ptr<BridgeCancellable>> handles;
    for (auto& count : runs) {
        handles.push_back(scheduler.scheduleRepeating(0.01, [&] {
            if (busy.exchange(true)) ++overlaps;
            std::this_thread::sleep_for(4ms);
            busy = false;
            ++count;
        }));
    }
    ASSERT_TRUE(eventually([&] { return runs[0].load() >= 5 && runs[1].load() >= 5; }));
    for (auto& handle : handles) handle->cancel();
    EXPECT_EQ(overlaps.load(), 0);
}

TEST(BridgeSchedulerTests, LateFiringsMergeIntoOneRun) {
    DispatchBridgeScheduler scheduler;
    std::mutex lock;
    std::vector<double> starts;
    const auto origin = Clock::now();
    auto handle = scheduler.scheduleRepeating(0.1, [&] {
        std::unique_lock<std::mutex> hold(lock);
        starts.push_back(secondsSince(origin));
        const bool firstRun = starts.size() == 1;
        hold.unlock();
        if (firstRun) std::this_thread::sleep_for(450ms); // four firings fall due meanwhile
    });
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> hold(lock);
        return starts.size() >= 4;
    }));
    handle->cancel();
    std::lock_guard<std::mutex> hold(lock);
    // One merged run right after the long one, then the normal rhythm: no burst of catch-up runs.
    EXPECT_GE(starts[1] - starts[0], 0.44);
    for (std::size_t i = 2; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], 0.03) << "run " << i;
}

TEST(BridgeSchedulerTests, UnusableIntervalsNeverFireAndTinyOnesAreSlowedDown) {
    DispatchBridgeScheduler scheduler;
    std::atomic<int> invalidRuns{0};
    std::vector<std::shared_ptr<BridgeCancellable>> handles;
    for (double interval : {0.0, -1.0, std::nan(""), std::numeric_limits<double>::infinity(), 1.0e300}) {
        handles.push_back(scheduler.scheduleRepeating(interval, [&] { ++invalidRuns; }));
    }
    std::atomic<int> tinyRuns{0};
    const auto start = Clock::now();
    auto tiny = scheduler.scheduleRepeating(1.0e-9, [&] { ++tinyRuns; });
    ASSERT_TRUE(eventually([&] { return tinyRuns.load() >= 1; }));
    std::this_thread::sleep_for(200ms);
    tiny->cancel();
    for (auto& handle : handles) handle->cancel();
    EXPECT_EQ(invalidRuns.load(), 0);
    // At most one run per 10 ms floor (plus the one under way when cancelled).
    EXPECT_LE(tinyRuns.load(), static_cast<int>(secondsSince(start) / 0.010) + 2);
}

TEST(BridgeSchedulerTests, HandlesOutliveTheSchedulerAndDroppedHandlesStopTheirTimer) {
    std::atomic<int> dropped{0};
    std::shared_ptr<BridgeCancellable> survivor;
    {
        DispatchBridgeScheduler scheduler;
        scheduler.scheduleRepeating(0.01, [&] { ++dropped; }); // handle discarded at once
        survivor = scheduler.scheduleRepeating(0.01, [] {});
        std::this_thread::sleep_for(100ms);
    } // joins the worker although a timer is still armed
    survivor->cancel();
    EXPECT_EQ(dropped.load(), 0);
}
