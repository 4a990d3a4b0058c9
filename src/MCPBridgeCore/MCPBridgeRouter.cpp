#include "MCPBridgeCore/MCPBridgeRouter.hpp"

#include <cstdint>
#include <utility>

#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/RequestUUID.hpp"

namespace sentrova {

namespace {

constexpr std::string_view kToolsCall = "tools/call";
constexpr std::string_view kToolsList = "tools/list";
constexpr std::string_view kToolsListChanged = "notifications/tools/list_changed";
constexpr std::string_view kCancelled = "notifications/cancelled";

constexpr std::string_view kMalformedTool = "tool";
constexpr std::string_view kMalformedReason = "the request was malformed";
constexpr std::string_view kHeartbeatMessage = "Awaiting Sentrova approval\xE2\x80\xA6"; // U+2026
// A line this long goes out on its own rather than being copied into a batch.
constexpr std::size_t kDirectWriteSize = 64 * 1024;

// One heartbeat's tick count, shared by its ticks only.
class Counter {
public:
    std::int64_t next() {
        std::lock_guard<std::mutex> hold(lock_);
        return ++value_;
    }

private:
    std::mutex lock_;
    std::int64_t value_ = 0;
};

bool isMethod(const Json& message, std::string_view method) {
    const std::optional<Json> value = message.find("method");
    return value && value->isString() && value->stringValue() == method;
}

} // namespace

// One tool call from the moment its decision is asked until it is allowed, denied or withdrawn.
struct MCPBridgeRouter::PendingCall {
    Json id;
    std::string idKey; // empty when the id has none (then it cannot be cancelled by id)
    std::string rawLine;
    std::string tool;
    std::string pinHash;
    bool pinChanged = false;
    std::shared_ptr<BridgeCancellable> heartbeat; // set before the decision starts, read-only after
    bool ended = false;                           // under the router's stateLock_

    // The gateway request, known only once it has started; a withdrawal may come first.
    void holdDecision(std::shared_ptr<BridgeCancellable> handle) {
        {
            std::lock_guard<std::mutex> hold(decisionLock);
            if (!withdrawn) {
                decision = std::move(handle);
                return;
            }
        }
        if (handle) handle->cancel();
    }
    void withdraw() {
        std::shared_ptr<BridgeCancellable> handle;
        {
            std::lock_guard<std::mutex> hold(decisionLock);
            withdrawn = true;
            handle = std::move(decision);
        }
        if (handle) handle->cancel();
        stopHeartbeat();
    }
    // Waits for a tick under way, so nothing of the heartbeat follows what is written next.
    void stopHeartbeat() {
        if (heartbeat) heartbeat->cancel();
    }

private:
    std::mutex decisionLock;
    std::shared_ptr<BridgeCancellable> decision; // under decisionLock
    bool withdrawn = false;                      // under decisionLock
};

MCPBridgeRouter::MCPBridgeRouter(Config config, WriteOperation writeToClient, WriteOperation writeToServer,
                                 std::shared_ptr<BridgeGatewayClient> gateway,
                                 std::shared_ptr<BridgeScheduler> scheduler)
    : config_(std::move(config)),
      writeToClient_(std::move(writeToClient)),
      writeToServer_(std::move(writeToServer)),
      gateway_(std::move(gateway)),
      scheduler_(std::move(scheduler)) {}

void MCPBridgeRouter::writeLine(const WriteOperation& write, std::string& line) {
    // The line is owned and may be very large: extend it in place so that it goes out in one
    // write with its LF, without a second copy.
    line.push_back('\n');
    if (write) {
        write(line);
    }
}

void MCPBridgeRouter::emit(OutputBatch& batch, const WriteOperation& write, std::string& line, bool moreFollows) {
    if (!moreFollows && batch.bytes.empty()) {
        writeLine(write, line);
        return;
    }
    if (line.size() >= kDirectWriteSize) {
        flush(batch, write);
        writeLine(write, line);
        return;
    }
    batch.bytes.append(line).push_back('\n');
    if (!moreFollows) flush(batch, write);
}

void MCPBridgeRouter::flush(OutputBatch& batch, const WriteOperation& write) {
    if (batch.bytes.empty()) return;
    if (write) write(batch.bytes);
    batch.bytes.clear();
}

void MCPBridgeRouter::flushClientPump() {
    flush(clientPumpToServer_, writeToServer_);
    flush(clientPumpToClient_, writeToClient_);
}

void MCPBridgeRouter::handleClientLine(std::string line, bool moreFollows) {
    // The client pump's own output waits in its batches only while more lines are in hand.
    clientLineHasMore_ = moreFollows;
    struct FlushAtEnd {
        MCPBridgeRouter& router;
        bool flushes;
        ~FlushAtEnd() {
            if (flushes) router.flushClientPump();
        }
    } flushAtEnd{*this, !moreFollows};

    try {
        ClientLineReadings::Answer reading = ClientLineReadings::read(line);
        if (!reading.message) {
            // Some server could read something else out of this line than the bridge: relay
            // nothing, and answer every request that any reading finds in it.
            for (const ClientLineReadings::FoundRequest& request : reading.refused) {
                std::string answer =
                    request.toolCall ? MCPWire::denyResult(request.id, denyMessage(kMalformedTool, kMalformedReason, false))
                                     : MCPWire::invalidRequest(request.id);
                toClient(answer);
            }
            return;
        }
        std::optional<Json>& message = reading.message;
        if (!message->isObject()) {
            message.reset(); // a batch without a tool call; free the parsed copy before a large relay
            toServer(line);
            return;
        }

        if (isMethod(*message, kToolsCall)) {
            interceptToolsCall(std::move(*message), std::move(line));
            return;
        }
        if (isMethod(*message, kCancelled)) {
            // Decided under relayOrderLock_: a relayed cancellation must not overtake the call it names.
            std::lock_guard<std::mutex> order(relayOrderLock_);
            if (withdrawCancelledCall(*message)) return;
            message.reset();
            toServer(line);
            return;
        }
        if (isMethod(*message, kToolsList)) {
            if (const std::optional<Json> id = message->find("id")) {
                // Recorded before the request goes out, so the answer always finds its key.
                if (std::optional<std::string> key = MCPWire::idKey(*id)) {
                    std::lock_guard<std::mutex> hold(stateLock_);
                    pendingToolsListIDs_.insert(std::move(*key));
                }
            }
        }
        message.reset();
        toServer(line);
    } catch (...) {
        // Out of memory: the line is not relayed, as it was not looked at; the run reports it.
        unhandledLines_.fetch_add(1);
    }
}

void MCPBridgeRouter::handleServerLine(std::string line, bool moreFollows) {
    try {
        std::optional<Json> message = parseJson(line);
        if (!message || !message->isObject()) {
            message.reset();
            emit(serverPumpToClient_, writeToClient_, line, moreFollows);
            return;
        }

        if (isMethod(*message, kToolsListChanged)) {
            pinTable_.markStale();
            message.reset();
            emit(serverPumpToClient_, writeToClient_, line, moreFollows);
            return;
        }

        const std::optional<Json> id = message->find("id");
        const std::vector<std::string> keys = id ? MCPWire::answerKeys(*id) : std::vector<std::string>();
        if (!keys.empty()) {
            bool wasPending = false;
            bool wasForwarded = false;
            {
                std::lock_guard<std::mutex> hold(stateLock_);
                for (const std::string& key : keys) { // every id spelling the client takes for its own
                    wasPending = pendingToolsListIDs_.erase(key) > 0 || wasPending;
                    wasForwarded = forwardedToolCallIDs_.erase(key) > 0 || wasForwarded;
                }
            }
            const std::optional<Json> result = message->find("result");
            const bool hasResultObject = result && result->isObject();
            // Capture before the answer is written: the client's next call must find the pins.
            if (wasPending && hasResultObject) {
                const std::optional<Json> tools = result->find("tools");
                if (tools && tools->isArray()) {
                    bool allObjects = true;
                    for (const Json& tool : tools->arrayValue()) {
                        allObjects = allObjects && tool.isObject();
                    }
                    if (allObjects) {
                        pinTable_.capture(*tools);
                    }
                }
            }
            if (wasForwarded && hasResultObject && gateway_) {
                if (std::optional<MCPWire::ImageBlock> image = MCPWire::firstImageBlock(*result)) {
                    gateway_->postEvent(BridgeEvent::screenshot(config_.workerName, std::move(image->base64),
                                                                std::move(image->mimeType)));
                }
            }
        }
        message.reset();
        emit(serverPumpToClient_, writeToClient_, line, moreFollows);
    } catch (...) {
        // Out of memory: nothing sensible is left to write; the run reports it.
        unhandledLines_.fetch_add(1);
    }
}

void MCPBridgeRouter::finishPendingDecisions() {
    flushClientPump();
    std::unique_lock<std::mutex> hold(stateLock_);
    pendingEnded_.wait(hold, [this] { return pendingCount_ == 0; });
}

std::string MCPBridgeRouter::denyMessage(std::string_view tool, std::string_view reason, bool pinChanged) {
    std::string message;
    if (pinChanged) {
        message.append("Denied by Sentrova (tool-pin violation): ").append(tool).append(" changed since it was last approved");
    } else {
        message.append("Denied by Sentrova policy: ").append(tool).append(" was not approved");
    }
    if (!reason.empty()) {
        message.append(" \xE2\x80\x94 ").append(reason); // U+2014 EM DASH between spaces
    }
    message.append(". Do not retry this exact call; ask the user or choose a different action.");
    return message;
}


void MCPBridgeRouter::interceptToolsCall(Json message, std::string rawLine) {
    std::optional<Json> id = message.find("id");
    if (!id) {
        // A notification can take no answer; the server gets it as sent.
        toServer(rawLine);
        return;
    }
    MCPWire::ToolCallReading reading = MCPWire::readToolCall(message);
    if (reading.outcome != MCPWire::ToolCallReading::Outcome::ask) {
        // The gateway would decide on something else than what the server acts on, or the
        // answer could not carry the client's id: refuse without asking.
        if (reading.outcome == MCPWire::ToolCallReading::Outcome::refuse) {
            std::string answer = MCPWire::denyResult(*id, denyMessage(kMalformedTool, kMalformedReason, false));
            toClient(answer);
        }
        return;
    }
    std::string tool;
    {
        const std::optional<Json> params = message.find("params");
        const std::optional<Json> name = params && params->isObject() ? params->find("name") : std::nullopt;
        if (!name || !name->isString()) {
            std::string answer = MCPWire::denyResult(*id, denyMessage(kMalformedTool, kMalformedReason, false));
            toClient(answer);
            return;
        }
        tool = name->stringValue();
    }

    auto call = std::make_shared<PendingCall>();
    call->id = id->standalone(); // kept while the call is pending, without the rest of the line
    call->idKey = MCPWire::idKey(*id).value_or(std::string());
    // All else needed of the line is in hand: its parsed form goes before the request is built.
    id.reset();
    message = Json();

    // Whatever the client sent before this call leaves now: an allowed call must not overtake
    // it, and nothing should sit in a batch while the pump waits for a slot below.
    flushClientPump();
    {
        std::unique_lock<std::mutex> hold(stateLock_);
        pendingEnded_.wait(hold, [this] { return pendingCount_ < maxPendingDecisions; });
        if (!call->idKey.empty() && pendingCalls_.contains(call->idKey)) {
            // The id is taken by a call still waiting: answering this one would answer both.
            hold.unlock();
            std::string answer = MCPWire::denyResult(call->id, denyMessage(kMalformedTool, kMalformedReason, false));
            toClient(answer);
            return;
        }
        ++pendingCount_;
        if (!call->idKey.empty()) pendingCalls_.emplace(call->idKey, call);
    }

    try {
        const std::optional<ToolPinTable::ToolPin> pin = pinTable_.pin(tool);
        const ToolPinTable::PinStatus status = pinTable_.pinStatus(tool, pin ? pin->hash : std::string());

        BridgeToolCallQuery query;
        query.workerName = config_.workerName;
        query.provider = config_.provider;
        query.serverCommand = config_.serverCommand;
        query.tool = tool;
        query.argumentsJSON = std::move(reading.argumentsText);
        query.risk = pin ? pin->risk : BridgeRisk::caution;
        query.pinHash = pin ? pin->hash : std::string();
        query.pinChanged = status.pinChanged;
        query.previousPinHash = status.previous;
        query.requestID = makeRequestUUID();

        call->rawLine = std::move(rawLine);
        call->tool = tool;
        call->pinHash = query.pinHash;
        call->pinChanged = status.pinChanged;

        if (status.pinChanged && status.previous && gateway_) {
            // Reported before the decision is asked, whatever the decision will be.
            gateway_->postEvent(BridgeEvent::pinViolation(config_.workerName, tool, *status.previous, query.pinHash));
        }
        call->heartbeat = armHeartbeat(reading.progressToken);
        if (!gateway_) {
            finishCall(call, BridgeDecision::deny(std::string(GatewayDenyReason::noAnswer)));
            return;
        }
        // The completion may run on the gateway client's thread, or here before this returns.
        call->holdDecision(gateway_->startDecision(
            query, [router = shared_from_this(), call](BridgeDecision decision) {
                router->finishCall(call, std::move(decision));
            }));
    } catch (...) {
        // The call stays closed whatever failed; its slot and its answer are settled here.
        call->withdraw();
        finishCall(call, BridgeDecision::deny(std::string(GatewayDenyReason::noAnswer)));
    }
}

// Ends a pending call exactly once: the first of its decision and its cancellation wins. The
// call keeps its slot until releaseSlot(), after its last write.
bool MCPBridgeRouter::endPending(PendingCall& call, bool forwarded) {
    std::lock_guard<std::mutex> hold(stateLock_);
    if (call.ended) return false;
    call.ended = true;
    if (!call.idKey.empty()) {
        pendingCalls_.erase(call.idKey);
        // Recorded before the request goes out, so the server's answer always finds its key.
        if (forwarded) forwardedToolCallIDs_.insert(call.idKey);
    }
    return true;
}

void MCPBridgeRouter::releaseSlot() {
    {
        std::lock_guard<std::mutex> hold(stateLock_);
        --pendingCount_;
    }
    pendingEnded_.notify_all();
}

void MCPBridgeRouter::finishCall(const std::shared_ptr<PendingCall>& call, BridgeDecision decision) {
    if (!decision.isAllow()) {
        if (!endPending(*call, false)) return; // withdrawn by the client: no answer at all
        call->stopHeartbeat();
        try {
            std::string answer =
                MCPWire::denyResult(call->id, denyMessage(call->tool, decision.reason(), call->pinChanged));
            writeLine(writeToClient_, answer);
        } catch (...) {
            // Only allocation can fail here: the call goes unanswered, and never reaches the server.
        }
        releaseSlot();
        return;
    }
    {
        std::lock_guard<std::mutex> order(relayOrderLock_);
        if (!endPending(*call, true)) return;
        call->stopHeartbeat();
        try {
            pinTable_.approve(call->tool, call->pinHash);
            writeLine(writeToServer_, call->rawLine);
        } catch (...) {
            // Only allocation can fail here: the call then does not reach the server at all.
        }
    }
    releaseSlot();
}

// A cancellation that names a pending call ends it: its request is given up, its heartbeat
// stops, and neither the server nor the client hears of it again (the server never saw it).
bool MCPBridgeRouter::withdrawCancelledCall(const Json& message) {
    const std::optional<Json> params = message.find("params");
    const std::optional<Json> requestId = params && params->isObject() ? params->find("requestId") : std::nullopt;
    std::optional<std::string> key = requestId ? MCPWire::idKey(*requestId) : std::nullopt;
    if (!key) return false;
    std::shared_ptr<PendingCall> call;
    {
        std::lock_guard<std::mutex> hold(stateLock_);
        auto found = pendingCalls_.find(*key);
        if (found == pendingCalls_.end()) return false;
        call = found->second;
    }
    if (!endPending(*call, false)) return false;
    call->withdraw();
    releaseSlot();
    return true;
}

std::shared_ptr<BridgeCancellable> MCPBridgeRouter::armHeartbeat(const std::optional<Json>& progressToken) {
    // Only strings and numbers (booleans read as numbers) identify a progress stream.
    if (!progressToken || !(progressToken->isString() || progressToken->isNumber()) || !scheduler_) {
        return nullptr;
    }
    auto counter = std::make_shared<Counter>();
    // The tick owns copies of all it uses: it runs on the scheduler's thread while this
    // call's message is still being decided on, and may outlive it by one tick.
    return scheduler_->scheduleRepeating(
        config_.heartbeatInterval,
        [write = writeToClient_, token = std::make_shared<const Json>(*progressToken), counter] {
            std::string notification =
                MCPWire::progressNotification(*token, counter->next(), std::string(kHeartbeatMessage));
            notification.push_back('\n');
            if (write) {
                write(notification);
            }
        });
}

} // namespace sentrova
