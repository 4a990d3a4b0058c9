// STUB: replaced by the real implementation.
#include "MCPBridgeCore/ToolPinTable.hpp"
namespace sentrova {
void ToolPinTable::capture(const Json::Array&) {}
std::optional<ToolPinTable::ToolPin> ToolPinTable::pin(const std::string&) const { return {}; }
ToolPinTable::PinStatus ToolPinTable::pinStatus(const std::string&, const std::string&) const { return {}; }
void ToolPinTable::approve(const std::string&, const std::string&) {}
void ToolPinTable::markStale() {}
bool ToolPinTable::isStale() const { return false; }
}
