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

constexpr std::string_view kMalformedTool = "tool";
constexpr std::string_view kMalformedReason = "the request was malformed";
constexpr std::string_view kHeartbeatMessage = "Awaiting Sentrova approval\xE2\x80\xA6"; // U+2026

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

// Stops a heartbeat however the wait for the decision ends; cancel() is idempotent, so the
// explicit stop right after the decision and this one may both run.
class HeartbeatStop {
public:
    explicit HeartbeatStop(std::shared_ptr<BridgeCancellable> handle) : handle_(std::move(handle)) {}
    ~HeartbeatStop() { stop(); }
    HeartbeatStop(const HeartbeatStop&) = delete;
    HeartbeatStop& operator=(const HeartbeatStop&) = delete;
    void stop() noexcept {
        if (handle_) {
            handle_->cancel();
        }
    }

private:
    std::shared_ptr<BridgeCancellable> handle_;
};

bool isMethod(const Json& message, std::string_view method) {
    const Json* value = message.find("method");
    return value != nullptr && value->isString() && value->stringValue() == method;
}

} // namespace

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

void MCPBridgeRouter::handleClientLine(std::string line) {
    try {
        ClientLineReadings::Answer reading = ClientLineReadings::read(line);
        if (!reading.message) {
            // Some server could read something else out of this line than the bridge: relay
            // nothing, and answer every request that any reading finds in it.
            for (const ClientLineReadings::FoundRequest& request : reading.refused) {
                std::string answer =
                    request.toolCall ? MCPWire::denyResult(request.id, denyMessage(kMalformedTool, kMalformedReason, false))
                                     : MCPWire::invalidRequest(request.id);
                writeLine(writeToClient_, answer);
            }
            return;
        }
        std::optional<Json>& message = reading.message;
        if (!message->isObject()) {
            message.reset(); // a batch without a tool call; free the parsed copy before a large relay
            writeLine(writeToServer_, line);
            return;
        }

        if (isMethod(*message, kToolsCall)) {
            interceptToolsCall(*message, std::move(line));
            return;
        }
        if (isMethod(*message, kToolsList)) {
            if (const Json* id = message->find("id")) {
                // Recorded before the request goes out, so the answer always finds its key.
                if (std::optional<std::string> key = MCPWire::idKey(*id)) {
                    std::lock_guard<std::mutex> hold(stateLock_);
                    pendingToolsListIDs_.insert(std::move(*key));
                }
            }
        }
        message.reset();
        writeLine(writeToServer_, line);
    } catch (...) {
        // Out of memory or a failing collaborator: drop the line rather than relay something
        // that was not looked at.
    }
}

void MCPBridgeRouter::handleServerLine(std::string line) {
    try {
        std::optional<Json> message = parseJson(line);
        if (!message || !message->isObject()) {
            message.reset();
            writeLine(writeToClient_, line);
            return;
        }

        if (isMethod(*message, kToolsListChanged)) {
            pinTable_.markStale();
            message.reset();
            writeLine(writeToClient_, line);
            return;
        }

        const Json* id = message->find("id");
        const std::vector<std::string> keys = id != nullptr ? MCPWire::answerKeys(*id) : std::vector<std::string>();
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
            const Json* result = message->find("result");
            const bool hasResultObject = result != nullptr && result->isObject();
            // Capture before the answer is written: the client's next call must find the pins.
            if (wasPending && hasResultObject) {
                const Json* tools = result->find("tools");
                if (tools != nullptr && tools->isArray()) {
                    bool allObjects = true;
                    for (const Json& tool : tools->arrayValue()) {
                        allObjects = allObjects && tool.isObject();
                    }
                    if (allObjects) {
                        pinTable_.capture(tools->arrayValue());
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
        writeLine(writeToClient_, line);
    } catch (...) {
        // Out of memory or a failing collaborator: nothing sensible is left to write.
    }
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

void MCPBridgeRouter::interceptToolsCall(const Json& message, std::string rawLine) {
    const Json* id = message.find("id");
    if (id == nullptr) {
        // A notification can take no answer; the server gets it as sent.
        writeLine(writeToServer_, rawLine);
        return;
    }
    const MCPWire::ToolCallReading reading = MCPWire::readToolCall(message);
    if (reading.outcome != MCPWire::ToolCallReading::Outcome::ask) {
        // The gateway would decide on something else than what the server acts on, or the
        // answer could not carry the client's id: refuse without asking.
        if (reading.outcome == MCPWire::ToolCallReading::Outcome::refuse) {
            std::string answer = MCPWire::denyResult(*id, denyMessage(kMalformedTool, kMalformedReason, false));
            writeLine(writeToClient_, answer);
        }
        return;
    }
    const Json* params = message.find("params");
    const Json* name = params != nullptr && params->isObject() ? params->find("name") : nullptr;
    if (name == nullptr || !name->isString()) {
        std::string answer = MCPWire::denyResult(*id, denyMessage(kMalformedTool, kMalformedReason, false));
        writeLine(writeToClient_, answer);
        return;
    }
    const std::string& tool = name->stringValue();

    const std::optional<ToolPinTable::ToolPin> pin = pinTable_.pin(tool);
    const BridgeRisk risk = pin ? pin->risk : BridgeRisk::caution;
    const std::string currentHash = pin ? pin->hash : std::string();
    const ToolPinTable::PinStatus status = pinTable_.pinStatus(tool, currentHash);

    BridgeToolCallQuery query;
    query.workerName = config_.workerName;
    query.provider = config_.provider;
    query.serverCommand = config_.serverCommand;
    query.tool = tool;
    query.argumentsJSON = reading.argumentsText;
    query.risk = risk;
    query.pinHash = currentHash;
    query.pinChanged = status.pinChanged;
    query.previousPinHash = status.previous;
    query.requestID = makeRequestUUID();

    if (status.pinChanged && status.previous && gateway_) {
        // Reported before the decision is asked, whatever the decision will be.
        gateway_->postEvent(BridgeEvent::pinViolation(config_.workerName, tool, *status.previous, currentHash));
    }

    HeartbeatStop heartbeat(armHeartbeat(reading.progressToken));
    std::optional<BridgeDecision> decision;
    try {
        if (gateway_) {
            decision = gateway_->requestDecision(query);
        }
    } catch (...) {
        // The gateway client never fails by contract; if it does anyway, the call stays closed.
    }
    heartbeat.stop();
    if (!decision) {
        decision = BridgeDecision::deny(std::string(GatewayDenyReason::noAnswer));
    }

    if (!decision->isAllow()) {
        std::string answer = MCPWire::denyResult(*id, denyMessage(tool, decision->reason(), status.pinChanged));
        writeLine(writeToClient_, answer);
        return;
    }
    pinTable_.approve(tool, currentHash);
    // Recorded before the request goes out, so the server's answer always finds its key.
    if (std::optional<std::string> key = MCPWire::idKey(*id)) {
        std::lock_guard<std::mutex> hold(stateLock_);
        forwardedToolCallIDs_.insert(std::move(*key));
    }
    writeLine(writeToServer_, rawLine);
}

std::shared_ptr<BridgeCancellable> MCPBridgeRouter::armHeartbeat(const Json* progressToken) {
    // Only strings and numbers (booleans read as numbers) identify a progress stream.
    if (progressToken == nullptr || !(progressToken->isString() || progressToken->isNumber()) || !scheduler_) {
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
