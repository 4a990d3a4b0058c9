// STUB: replaced by the real implementation.
#include "MCPBridgeCore/MCPWire.hpp"
namespace sentrova::MCPWire {
std::optional<std::string> idKey(const Json&) { return {}; }
std::optional<bool> readBoolean(const Json*) { return {}; }
BridgeRisk riskFloor(const Json*) { return BridgeRisk::caution; }
std::optional<ImageBlock> firstImageBlock(const Json&) { return {}; }
std::string denyResult(const Json&, const std::string&) { return "{\"jsonrpc\":\"2.0\",\"result\":{\"isError\":true}}"; }
std::string progressNotification(const Json&, std::int64_t, const std::string&) { return "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/progress\"}"; }
std::string pinHash(const Json&) { return ""; }
}
