#pragma once

// One run of the bridge: the server as a child, both streams pumped through the router.

#include <memory>

#include "MCPBridgeCore/BridgeConfig.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

// The host's own streams; the defaults are the process's standard streams.
struct HostStreams {
    int clientInput = 0;
    int clientOutput = 1;
    int errorOutput = 2;
};

class BridgeProcessHost {
public:
    BridgeProcessHost(BridgeConfig config, std::shared_ptr<BridgeGatewayClient> gateway, HostStreams streams = {});

    // Blocks until the run is over: 64 (no server command), 69 (launch failed), else the server's status.
    int run();

private:
    BridgeConfig config_;
    std::shared_ptr<BridgeGatewayClient> gateway_;
    HostStreams streams_;
};

} // namespace sentrova
