// STUB: replaced by the real implementation.
#include "MCPBridgeCore/CommandLine.hpp"
namespace sentrova {
std::variant<BridgeConfig, CommandLineError> parseCommandLine(const std::vector<std::string>&, const std::map<std::string, std::string>&) { return CommandLineError{"stub"}; }
std::optional<double> parseSeconds(const std::string&) { return {}; }
bool isURIReference(const std::string&) { return false; }
}
