#pragma once

// The dev gateway's policy: an ordered list of rules read from a JSON file. The first rule
// whose conditions all hold decides; when none does, the call is denied.
//
//   {"rules": [
//     {"tool": "echo", "decision": "allow"},
//     {"tool": ["write_*", "edit_*"], "risk": "critical", "decision": "deny", "reason": "..."},
//     {"tool": "*", "pinChanged": true, "decision": "deny", "reason": "..."},
//     {"tool": "get-sum", "decision": "allow", "delaySeconds": 2},
//     {"tool": "*", "toolKnown": true, "pinKnown": false, "decision": "ask", "timeoutSeconds": 300}
//   ]}

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

inline constexpr std::string_view kNoRuleMatchedReason = "no policy rule matched";
inline constexpr double kMaxRuleDelaySeconds = 3600.0;
inline constexpr double kDefaultAskTimeoutSeconds = 120.0;

// A tools/call question as the bridge sends it. Every member is optional except "tool"; a
// member of the wrong type or one that appears twice makes the question unreadable, so a
// rule never decides on a value that a person reading the log would see differently.
struct DevGatewayQuery {
    std::string tool;
    std::string risk;
    std::string workerName;
    std::string serverCommand;
    std::string argumentsJSON;
    std::string pinHash;
    std::string previousPinHash;
    std::string provider;
    std::string requestID;
    bool pinChanged = false;
    // Filled from the remembered pins, not from the body: a pin is remembered for this
    // server command and tool (toolKnown), and it equals pinHash (pinKnown).
    bool toolKnown = false;
    bool pinKnown = false;

    // The query, or the problem ("member \"tool\" must be a string", ...).
    static std::variant<DevGatewayQuery, std::string> parse(const Json& body);
};

enum class DevGatewayDecision { allow, deny, ask };

struct DevGatewayVerdict {
    DevGatewayDecision decision = DevGatewayDecision::deny;
    std::string reason;
    double delaySeconds = 0.0;
    double timeoutSeconds = kDefaultAskTimeoutSeconds; // for ask: how long a person has
    std::optional<std::size_t> ruleIndex;              // nullopt when no rule matched
};

// The answer body: {"decision":"allow"} or {"decision":"deny","reason":"..."}.
std::string verdictBody(bool allow, const std::string& reason);
std::string_view decisionName(DevGatewayDecision decision);

// The path of the first object member whose key repeats an earlier one ("rules[2].tool"),
// looking at every depth; nullopt when there is none.
std::optional<std::string> firstDuplicateKey(const Json& value);

struct DevGatewayRule {
    // Each list holds alternatives; an empty list places no condition.
    std::vector<std::string> toolGlobs;
    std::vector<std::string> workerNameGlobs;
    std::vector<std::string> serverCommandGlobs;
    std::vector<std::string> risks;
    std::optional<bool> pinChanged;
    std::optional<bool> pinKnown;
    std::optional<bool> toolKnown;

    DevGatewayDecision decision = DevGatewayDecision::deny;
    std::string reason;
    double delaySeconds = 0.0;
    double timeoutSeconds = kDefaultAskTimeoutSeconds;

    bool matches(const DevGatewayQuery& query) const;
};

class DevGatewayPolicy {
public:
    using ParseResult = std::variant<DevGatewayPolicy, std::string>;

    DevGatewayPolicy() = default; // no rules: denies everything
    explicit DevGatewayPolicy(std::vector<DevGatewayRule> rules) : rules_(std::move(rules)) {}

    // Reads a policy text. The error names sourceName, the rule (as rules[i]) and the problem.
    static ParseResult parse(std::string_view text, const std::string& sourceName);
    // Reads a policy file; the error names the file.
    static ParseResult load(const std::string& path);

    DevGatewayVerdict decide(const DevGatewayQuery& query) const;
    const std::vector<DevGatewayRule>& rules() const noexcept { return rules_; }

private:
    std::vector<DevGatewayRule> rules_;
};

} // namespace sentrova
