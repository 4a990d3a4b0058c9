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
    // The server's output is relayed whole before it returns; the process is meant to end right
    // after (with _exit: threads may still be blocked in reads of streams that never end).
    int run();

    // SIGTERM, SIGINT and SIGHUP go to the server instead of ending the bridge at once. They are
    // taken on one thread of run() by sigwait, so every thread must have them blocked: call this
    // before any thread exists (run() calls it too, for the threads it starts).
    static void blockForwardedSignals();

private:
    BridgeConfig config_;
    std::shared_ptr<BridgeGatewayClient> gateway_;
    HostStreams streams_;
};

} // namespace sentrova
