#pragma once

// The dev gateway's policy: an ordered list of rules read from a JSON file. The first rule
// whose conditions all hold decides; when none does, the call is denied.
//
//   {"rules": [
//     {"tool": "echo", "decision": "allow"},
//     {"tool": ["write_*", "edit_*"], "risk": "critical", "decision": "deny", "reason": "..."},
//     {"tool": "*", "pinChanged": true, "decision": "deny", "reason": "..."},
//     {"tool": "get-sum", "decision": "allow", "delaySeconds": 2}
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

// The members of a tools/call question that rules can look at. Missing or mistyped members
// read as empty strings and false, which only catch-all conditions match.
struct DevGatewayQuery {
    std::string tool;
    std::string risk;
    std::string workerName;
    std::string serverCommand;
    bool pinChanged = false;

    static DevGatewayQuery fromBody(const Json& body);
};

struct DevGatewayVerdict {
    bool allow = false;
    std::string reason;
    double delaySeconds = 0.0;
    std::optional<std::size_t> ruleIndex; // nullopt when no rule matched

    // The answer body: {"decision":"allow"} or {"decision":"deny","reason":"..."}.
    std::string responseBody() const;
};

struct DevGatewayRule {
    // Each list holds alternatives; an empty list places no condition.
    std::vector<std::string> toolGlobs;
    std::vector<std::string> workerNameGlobs;
    std::vector<std::string> serverCommandGlobs;
    std::vector<std::string> risks;
    std::optional<bool> pinChanged;

    bool allow = false;
    std::string reason;
    double delaySeconds = 0.0;

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
