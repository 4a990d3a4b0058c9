#pragma once

// Every line of a run passes through here: relayed, recorded, or (tools/call) put to the gateway.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
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

    // Decisions pending at once; a further tool call waits for one of them to end.
    static constexpr std::size_t maxPendingDecisions = 64;

    // Completions of decisions capture the router: create it with std::make_shared.
    MCPBridgeRouter(Config config, WriteOperation writeToClient, WriteOperation writeToServer,
                    std::shared_ptr<BridgeGatewayClient> gateway, std::shared_ptr<BridgeScheduler> scheduler);

    // One line from the client, without its LF, never empty; one thread at a time (the client
    // pump). Never waits for a verdict: a tool call starts its decision and returns, waiting only
    // for a free slot when maxPendingDecisions are pending. moreFollows says that another whole
    // line is already in hand, so this line's output may wait for it and leave in the same write.
    void handleClientLine(std::string line, bool moreFollows = false);
    // One line from the server, without its LF, never empty; one thread at a time (the server
    // pump). Never blocks on the gateway.
    void handleServerLine(std::string line, bool moreFollows = false);
    // Returns once every pending decision has ended (an allowed call has reached the server).
    void finishPendingDecisions();

    static std::string denyMessage(std::string_view tool, std::string_view reason, bool pinChanged);

    // Lines dropped because handling them failed (only running out of memory can do that; a tool
    // call still gets its deny). Nothing of such a line was relayed.
    std::size_t unhandledLineCount() const noexcept { return unhandledLines_.load(); }

private:
    struct PendingCall;
    // Lines gathered by one pump for one side, written together when no further line is in hand.
    struct OutputBatch {
        std::string bytes;
    };

    void interceptToolsCall(Json message, std::string rawLine);
    bool withdrawCancelledCall(const Json& message);
    void finishCall(const std::shared_ptr<PendingCall>& call, BridgeDecision decision);
    bool endPending(PendingCall& call, bool forwarded);
    void releaseSlot();
    std::shared_ptr<BridgeCancellable> armHeartbeat(const std::optional<Json>& progressToken);
    void writeLine(const WriteOperation& write, std::string& line); // appends the LF, one write
    // Appends the LF; gathers the line while more lines are in hand, else writes it at once.
    void emit(OutputBatch& batch, const WriteOperation& write, std::string& line, bool moreFollows);
    static void flush(OutputBatch& batch, const WriteOperation& write);
    void flushClientPump();
    // The client pump's writes toward each side.
    void toServer(std::string& line) { emit(clientPumpToServer_, writeToServer_, line, clientLineHasMore_); }
    void toClient(std::string& line) { emit(clientPumpToClient_, writeToClient_, line, clientLineHasMore_); }

    Config config_;
    WriteOperation writeToClient_;
    WriteOperation writeToServer_;
    std::shared_ptr<BridgeGatewayClient> gateway_;
    std::shared_ptr<BridgeScheduler> scheduler_;
    ToolPinTable pinTable_;

    // Used only by the pump that owns them.
    bool clientLineHasMore_ = false;
    OutputBatch clientPumpToServer_;
    OutputBatch clientPumpToClient_;
    OutputBatch serverPumpToClient_;

    std::mutex stateLock_;
    std::condition_variable pendingEnded_; // with stateLock_
    std::unordered_set<std::string> pendingToolsListIDs_;
    std::unordered_set<std::string> forwardedToolCallIDs_;
    std::unordered_map<std::string, std::shared_ptr<PendingCall>> pendingCalls_; // by id key
    std::size_t pendingCount_ = 0;                                               // with or without a key
    // Held from the moment an allowed call is settled until it is written to the server, and by
    // the client pump while it decides about a cancellation: so a cancellation that is relayed
    // always reaches the server after the call it names.
    std::mutex relayOrderLock_;
    std::atomic<std::size_t> unhandledLines_{0};
};

} // namespace sentrova
