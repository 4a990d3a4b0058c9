#include "MCPBridgeCore/BridgeConfig.hpp"

namespace sentrova {

std::string BridgeConfig::serverCommandString() const {
    std::string joined;
    for (std::size_t i = 0; i < serverArgv.size(); ++i) {
        if (i > 0) joined.push_back(' ');
        joined += serverArgv[i];
    }
    return joined;
}

} // namespace sentrova
