#pragma once

// Repeating timers on one serial thread per scheduler, with idempotent cancel handles.

#include <functional>
#include <memory>

namespace sentrova {

class BridgeCancellable {
public:
    virtual ~BridgeCancellable() = default;
    // Stops the repetition; idempotent, callable from any thread. No run starts after it returns,
    // and a run under way when it is called has ended by then (unless called from inside that run).
    virtual void cancel() = 0;
};

class BridgeScheduler {
public:
    virtual ~BridgeScheduler() = default;
    // Runs action first one interval after the call, then every interval, on the scheduler's
    // own thread, one action at a time, until the returned handle is cancelled.
    virtual std::shared_ptr<BridgeCancellable> scheduleRepeating(double everySeconds,
                                                                  std::function<void()> action) = 0;
};

class DispatchBridgeScheduler final : public BridgeScheduler {
public:
    DispatchBridgeScheduler();
    ~DispatchBridgeScheduler() override;
    DispatchBridgeScheduler(const DispatchBridgeScheduler&) = delete;
    DispatchBridgeScheduler& operator=(const DispatchBridgeScheduler&) = delete;

    std::shared_ptr<BridgeCancellable> scheduleRepeating(double everySeconds, std::function<void()> action) override;

private:
    struct Queue;
    std::shared_ptr<Queue> queue_;
};

} // namespace sentrova
