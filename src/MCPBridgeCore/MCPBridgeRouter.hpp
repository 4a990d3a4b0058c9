#pragma once

// Every line of a run passes through here: relayed, recorded, or (tools/call) put to the gateway.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "MCPBridgeCore/ToolPinTable.hpp"

namespace sentrova {

class MCPBridgeRouter : public std::enable_shared_from_this<MCPBridgeRouter> {
public:
    struct Config {
        std::string workerName;
        std::optional<std::string> provider;
        std::string serverCommand;
        double heartbeatInterval = 15.0;
    };
    // Writes one whole buffer toward one side; serialised per side by the host; never fails.
    using WriteOperation = std::function<void(std::string_view bytes)>;

    MCPBridgeRouter(Config config, WriteOperation writeToClient, WriteOperation writeToServer,
                    std::shared_ptr<BridgeGatewayClient> gateway, std::shared_ptr<BridgeScheduler> scheduler);

    // One line from the client, without its LF, never empty. May block while the gateway decides.
    void handleClientLine(std::string line);
    // One line from the server, without its LF, never empty. Never blocks on the gateway.
    void handleServerLine(std::string line);

    static std::string denyMessage(std::string_view tool, std::string_view reason, bool pinChanged);

    const ToolPinTable& pinTable() const noexcept { return pinTable_; }

private:
    void interceptToolsCall(const Json& message, std::string rawLine);
    std::shared_ptr<BridgeCancellable> armHeartbeat(const Json* progressToken);
    void writeLine(const WriteOperation& write, std::string& line); // appends the LF, one write

    Config config_;
    WriteOperation writeToClient_;
    WriteOperation writeToServer_;
    std::shared_ptr<BridgeGatewayClient> gateway_;
    std::shared_ptr<BridgeScheduler> scheduler_;
    ToolPinTable pinTable_;
    std::mutex stateLock_;
    std::unordered_set<std::string> pendingToolsListIDs_;
    std::unordered_set<std::string> forwardedToolCallIDs_;
};

} // namespace sentrova
