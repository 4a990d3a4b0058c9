// STUB: replaced by the real implementation.
#include "MCPBridgeCore/BridgeProcessHost.hpp"
namespace sentrova {
BridgeProcessHost::BridgeProcessHost(BridgeConfig c, std::shared_ptr<BridgeGatewayClient> g, HostStreams s) : config_(std::move(c)), gateway_(std::move(g)), streams_(s) {}
int BridgeProcessHost::run() { return 70; }
}
