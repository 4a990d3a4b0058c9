// STUB: replaced by the real implementation.
#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"
namespace sentrova {
struct HTTPBridgeGatewayClient::Session {};
HTTPBridgeGatewayClient::HTTPBridgeGatewayClient(std::string b, std::optional<std::string> t, double d) : baseURL_(std::move(b)), token_(std::move(t)), deadline_(d) {}
HTTPBridgeGatewayClient::~HTTPBridgeGatewayClient() {}
BridgeDecision HTTPBridgeGatewayClient::requestDecision(const BridgeToolCallQuery&) { return BridgeDecision::deny(std::string(GatewayDenyReason::noAnswer)); }
void HTTPBridgeGatewayClient::postEvent(const BridgeEvent&) {}
std::optional<std::string> HTTPBridgeGatewayClient::resolve(const std::string&, const std::string&) { return {}; }
}
