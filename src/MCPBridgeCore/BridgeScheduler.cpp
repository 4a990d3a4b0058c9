// STUB: replaced by the real implementation.
#include "MCPBridgeCore/BridgeScheduler.hpp"
namespace sentrova {
struct DispatchBridgeScheduler::Queue {};
DispatchBridgeScheduler::DispatchBridgeScheduler() {}
DispatchBridgeScheduler::~DispatchBridgeScheduler() {}
std::shared_ptr<BridgeCancellable> DispatchBridgeScheduler::scheduleRepeating(double, std::function<void()>) { return nullptr; }
}
