// STUB: replaced by the real implementation.
#include "MCPBridgeCore/MCPBridgeContract.hpp"
namespace sentrova {
std::string_view rawValue(BridgeRisk) noexcept { return "caution"; }
std::optional<BridgeRisk> bridgeRiskFromRawValue(std::string_view) noexcept { return {}; }
std::string BridgeToolCallQuery::httpBody() const { return "{}"; }
BridgeDecision BridgeDecision::parse(std::string_view) { return deny(std::string(GatewayDenyReason::unreadableVerdict)); }
BridgeEvent BridgeEvent::screenshot(std::string w, std::string b, std::string m) { return BridgeEvent(Screenshot{w, b, m}); }
BridgeEvent BridgeEvent::pinViolation(std::string w, std::string t, std::string p, std::string h) { return BridgeEvent(PinViolation{w, t, p, h}); }
std::string BridgeEvent::httpBody() const { return "{}"; }
}
