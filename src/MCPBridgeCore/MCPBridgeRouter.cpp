// STUB: replaced by the real implementation.
#include "MCPBridgeCore/MCPBridgeRouter.hpp"
namespace sentrova {
MCPBridgeRouter::MCPBridgeRouter(Config c, WriteOperation wc, WriteOperation ws, std::shared_ptr<BridgeGatewayClient> g, std::shared_ptr<BridgeScheduler> s)
    : config_(std::move(c)), writeToClient_(std::move(wc)), writeToServer_(std::move(ws)), gateway_(std::move(g)), scheduler_(std::move(s)) {}
void MCPBridgeRouter::handleClientLine(std::string) {}
void MCPBridgeRouter::handleServerLine(std::string) {}
std::string MCPBridgeRouter::denyMessage(std::string_view, std::string_view, bool) { return {}; }
void MCPBridgeRouter::interceptToolsCall(const Json&, std::string) {}
std::shared_ptr<BridgeCancellable> MCPBridgeRouter::armHeartbeat(const Json*) { return nullptr; }
void MCPBridgeRouter::writeLine(const WriteOperation&, std::string&) {}
}
