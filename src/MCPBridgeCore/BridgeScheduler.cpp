#include "MCPBridgeCore/BridgeScheduler.hpp"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace sentrova {

namespace {

using Clock = std::chrono::steady_clock;

// A heartbeat interval comes straight from the command line. Anything that is not a positive
// finite number of seconds arms a timer that never fires: zero, a negative value or NaN would
// otherwise turn the heartbeat into a busy loop flooding the client. Positive values below
// the floor are raised to it so that a typo such as 0.000001 cannot spin a core either;
// values beyond the ceiling (about 31 years) never fire, which also keeps the nanosecond
// arithmetic below far from overflow.
constexpr double kMinimumIntervalSeconds = 0.010;
constexpr double kMaximumIntervalSeconds = 1.0e9;

std::optional<Clock::duration> firingPeriod(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0.0 || seconds > kMaximumIntervalSeconds) {
        return std::nullopt;
    }
    const double clamped = std::max(seconds, kMinimumIntervalSeconds);
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(clamped));
}

// One repeating timer. Everything but the action is guarded by the queue's mutex; the action
// is set once at creation and only read afterwards, so the worker calls it without the lock.
struct ScheduledTimer {
    std::function<void()> action;
    Clock::duration period{};
    Clock::time_point due{};
    std::uint64_t sequence = 0; // orders timers that fall due at the same instant
    bool cancelled = false;
};

// The serial queue: one worker thread waiting on a condition variable for the earliest due
// timer. At most one action of this scheduler runs at any moment because only the worker runs them.
struct TimerQueue {
    std::mutex mutex;
    std::condition_variable wakeUp;
    std::condition_variable actionEnded;
    std::vector<std::shared_ptr<ScheduledTimer>> timers; // armed, firing timers only (one per pending call)
    const ScheduledTimer* running = nullptr;            // the timer whose action runs now
    std::thread::id workerID;                           // set by the worker as it starts
    std::uint64_t nextSequence = 0;
    bool stopping = false;
    std::thread worker;

    void run();
    void cancel(const std::shared_ptr<ScheduledTimer>& timer);
};

// The list entry of the earliest due timer, ties broken by scheduling order. A pointer into
// the list (valid while the mutex is held) so that the worker never owns a timer while it sleeps.
const std::shared_ptr<ScheduledTimer>* earliest(const std::vector<std::shared_ptr<ScheduledTimer>>& timers) {
    const std::shared_ptr<ScheduledTimer>* best = nullptr;
    for (const auto& timer : timers) {
        if (best == nullptr || timer->due < (*best)->due ||
            (timer->due == (*best)->due && timer->sequence < (*best)->sequence)) {
            best = &timer;
        }
    }
    return best;
}

// The next firing on the timer's own grid after now. Firings that fell due while the worker
// was busy are merged into the run being started instead of being replayed one by one.
Clock::time_point nextDue(const ScheduledTimer& timer, Clock::time_point now) {
    Clock::time_point next = timer.due + timer.period;
    if (next <= now) {
        const auto missed = (now - timer.due) / timer.period; // whole periods since the due time
        next = timer.due + (missed + 1) * timer.period;
    }
    return next;
}

class DispatchTimerCancellable final : public BridgeCancellable {
public:
    DispatchTimerCancellable(std::shared_ptr<TimerQueue> queue,
                             std::shared_ptr<ScheduledTimer> timer)
        : queue_(std::move(queue)), timer_(std::move(timer)) {}

    // A handle that goes away without cancel() would leave a timer nobody can stop.
    ~DispatchTimerCancellable() override { cancel(); }

    void cancel() override {
        if (queue_) {
            queue_->cancel(timer_);
        }
    }

private:
    std::shared_ptr<TimerQueue> queue_; // null when the timer never fires
    std::shared_ptr<ScheduledTimer> timer_;
};

} // namespace

struct DispatchBridgeScheduler::Queue : TimerQueue {};

void TimerQueue::cancel(const std::shared_ptr<ScheduledTimer>& timer) {
    std::shared_ptr<ScheduledTimer> removed; // released after unlocking: its action may own anything
    {
        std::unique_lock<std::mutex> hold(mutex);
        if (!timer->cancelled) {
            timer->cancelled = true;
            const auto found = std::find(timers.begin(), timers.end(), timer);
            if (found != timers.end()) {
                removed = std::move(*found);
                timers.erase(found);
            }
        }
        // A run already under way finishes before cancel() returns, so that whatever the caller
        // writes next (a call's answer) comes after the timer's last output. The worker itself
        // cancelling from inside an action must not wait for itself.
        if (std::this_thread::get_id() != workerID) {
            actionEnded.wait(hold, [&] { return running != timer.get(); });
        }
    }
    // No need to wake the worker: a removed timer only means it may sleep longer than needed.
}

void TimerQueue::run() {
    std::unique_lock<std::mutex> hold(mutex);
    workerID = std::this_thread::get_id();
    while (!stopping) {
        const std::shared_ptr<ScheduledTimer>* const entry = earliest(timers);
        if (entry == nullptr) {
            wakeUp.wait(hold);
            continue;
        }
        ScheduledTimer& timer = **entry;
        const Clock::time_point now = Clock::now();
        if (timer.due > now) {
            const Clock::time_point due = timer.due;
            wakeUp.wait_until(hold, due);
            continue;
        }
        // Decided under the mutex that cancel() takes: once cancel() has returned, the timer
        // is out of the list and no later pass can pick it.
        timer.due = nextDue(timer, now);
        std::shared_ptr<ScheduledTimer> current = *entry;
        running = current.get();
        hold.unlock();
        try {
            current->action();
        } catch (...) {
            // An action's failure must not end the queue: the other timers still have to run.
        }
        current.reset(); // may be the last owner; its action must not be destroyed under the mutex
        hold.lock();
        running = nullptr;
        actionEnded.notify_all();
    }
}

DispatchBridgeScheduler::DispatchBridgeScheduler() : queue_(std::make_shared<Queue>()) {
    try {
        queue_->worker = std::thread([queue = queue_] {
            pthread_setname_np(pthread_self(), "sentrova-hbeat");
            queue->run();
        });
    } catch (...) {
        // Without a worker the timers stay armed and silent: heartbeats are a courtesy to the
        // client, and the relay must keep working.
    }
}

DispatchBridgeScheduler::~DispatchBridgeScheduler() {
    std::vector<std::shared_ptr<ScheduledTimer>> abandoned;
    {
        std::lock_guard<std::mutex> hold(queue_->mutex);
        queue_->stopping = true;
        abandoned.swap(queue_->timers);
    }
    queue_->wakeUp.notify_all();
    if (queue_->worker.joinable()) {
        if (queue_->worker.get_id() == std::this_thread::get_id()) {
            queue_->worker.detach(); // destroyed by its own action; the worker holds the queue alive
        } else {
            queue_->worker.join();
        }
    }
}

std::shared_ptr<BridgeCancellable> DispatchBridgeScheduler::scheduleRepeating(double everySeconds,
                                                                               std::function<void()> action) {
    auto timer = std::make_shared<ScheduledTimer>();
    const std::optional<Clock::duration> period = firingPeriod(everySeconds);
    if (!period || !action) {
        return std::make_shared<DispatchTimerCancellable>(nullptr, std::move(timer));
    }
    timer->action = std::move(action);
    timer->period = *period;
    timer->due = Clock::now() + *period;
    {
        std::lock_guard<std::mutex> hold(queue_->mutex);
        if (!queue_->stopping) {
            timer->sequence = queue_->nextSequence++;
            queue_->timers.push_back(timer);
        }
    }
    queue_->wakeUp.notify_one();
    return std::make_shared<DispatchTimerCancellable>(queue_, std::move(timer));
}

} // namespace sentrova
