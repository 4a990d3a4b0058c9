#pragma once

// The vocabulary exchanged with the policy gateway, and the interface the router asks it through.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "MCPBridgeCore/BridgeScheduler.hpp"

namespace sentrova {

enum class BridgeRisk { safe = 0, caution = 1, critical = 2 };

std::string_view rawValue(BridgeRisk risk) noexcept;
// Exactly "safe", "caution" or "critical" (byte for byte); nullopt for anything else.
std::optional<BridgeRisk> bridgeRiskFromRawValue(std::string_view raw) noexcept;

struct BridgeToolCallQuery {
    std::string workerName;
    std::optional<std::string> provider;
    std::string serverCommand;
    std::string tool;
    std::string argumentsJSON;
    BridgeRisk risk = BridgeRisk::caution;
    std::string pinHash;
    bool pinChanged = false;
    std::optional<std::string> previousPinHash;
    std::string requestID;

    // Body of POST "/v1/toolcall": compact, members in name order, optional members left out; "{}" on failure.
    std::string httpBody() const;

    friend bool operator==(const BridgeToolCallQuery&, const BridgeToolCallQuery&) = default;
};

class BridgeDecision {
public:
    static BridgeDecision allow() { return BridgeDecision(std::nullopt); }
    static BridgeDecision deny(std::string reason) { return BridgeDecision(std::move(reason)); }

    // Reads the gateway's verdict; anything unreadable is a deny (fail-closed).
    static BridgeDecision parse(std::string_view responseBody);

    bool isAllow() const noexcept { return !denyReason_.has_value(); }
    // The deny reason (possibly empty); only meaningful when !isAllow().
    const std::string& reason() const noexcept { return *denyReason_; }

    friend bool operator==(const BridgeDecision&, const BridgeDecision&) = default;

private:
    explicit BridgeDecision(std::optional<std::string> denyReason) : denyReason_(std::move(denyReason)) {}
    std::optional<std::string> denyReason_;
};

class BridgeEvent {
public:
    struct Screenshot {
        std::string workerName;
        std::string base64;
        std::string mimeType;
        friend bool operator==(const Screenshot&, const Screenshot&) = default;
    };
    struct PinViolation {
        std::string workerName;
        std::string tool;
        std::string previousPinHash;
        std::string pinHash;
        friend bool operator==(const PinViolation&, const PinViolation&) = default;
    };

    static BridgeEvent screenshot(std::string workerName, std::string base64, std::string mimeType);
    static BridgeEvent pinViolation(std::string workerName, std::string tool, std::string previousPinHash,
                                    std::string pinHash);

    const std::variant<Screenshot, PinViolation>& payload() const noexcept { return payload_; }

    // Body of POST "/v1/event"; "{}" on failure.
    std::string httpBody() const;

    friend bool operator==(const BridgeEvent&, const BridgeEvent&) = default;

private:
    explicit BridgeEvent(std::variant<Screenshot, PinViolation> payload) : payload_(std::move(payload)) {}
    std::variant<Screenshot, PinViolation> payload_;
};

// Fixed deny reasons of the gateway path; every one of them ends in "(fail-closed).".
namespace GatewayDenyReason {
inline constexpr std::string_view urlInvalid = "Sentrova gateway URL invalid; denying (fail-closed).";
inline constexpr std::string_view noAnswer = "Sentrova gateway did not answer in time; denying (fail-closed).";
inline constexpr std::string_view timedOut = "Sentrova approval timed out; denying by policy (fail-closed).";
inline constexpr std::string_view unreadableVerdict =
    "Sentrova gateway returned an unreadable verdict; denying (fail-closed).";
inline constexpr std::string_view policyDefault = "Denied by Sentrova policy.";
} // namespace GatewayDenyReason

class BridgeGatewayClient {
public:
    using DecisionHandler = std::function<void(BridgeDecision)>;

    virtual ~BridgeGatewayClient() = default;
    // Blocks at most the deadline; never fails: every failure comes back as a deny.
    virtual BridgeDecision requestDecision(const BridgeToolCallQuery& query) = 0;
    // Starts a decision and returns at once. onDecision gets the decision exactly once (every
    // failure as a deny), on whatever thread the client completes on, possibly before this
    // returns; after cancel() on the handle it is no longer called, unless it had already begun,
    // and the request is given up. This default decides inline through requestDecision (clients
    // that answer at once need nothing more).
    virtual std::shared_ptr<BridgeCancellable> startDecision(const BridgeToolCallQuery& query,
                                                             DecisionHandler onDecision);
    // Returns at once; the answer is never looked at.
    virtual void postEvent(const BridgeEvent& event) = 0;
};

} // namespace sentrova
