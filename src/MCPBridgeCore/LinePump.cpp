// STUB: replaced by the real implementation.
#include "MCPBridgeCore/LinePump.hpp"
namespace sentrova {
void pumpLines(int, const std::function<void(std::string)>&) {}
}
