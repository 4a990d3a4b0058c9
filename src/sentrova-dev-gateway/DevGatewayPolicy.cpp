#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sentrova-dev-gateway/DevGatewayGlob.hpp"

namespace sentrova {

namespace {

constexpr std::array<std::string_view, 3> kRiskNames = {"safe", "caution", "critical"};
constexpr std::array<std::string_view, 12> kRuleKeys = {
    "tool",     "risk",   "pinChanged",   "pinKnown",       "toolKnown", "workerName",
    "serverCommand", "decision", "reason", "delaySeconds", "timeoutSeconds", "comment"};
constexpr std::array<std::string_view, 3> kTopLevelKeys = {"rules", "description", "comment"};

std::string* queryField(DevGatewayQuery& query, std::string_view key) {
    if (key == "tool") return &query.tool;
    if (key == "risk") return &query.risk;
    if (key == "workerName") return &query.workerName;
    if (key == "serverCommand") return &query.serverCommand;
    if (key == "argumentsJSON") return &query.argumentsJSON;
    if (key == "pinHash") return &query.pinHash;
    if (key == "previousPinHash") return &query.previousPinHash;
    if (key == "provider") return &query.provider;
    if (key == "requestID") return &query.requestID;
    return nullptr;
}

// Reads an optional non-negative number of seconds no larger than the limit.
std::optional<std::string> readSeconds(const Json& rule, std::string_view key, double& out) {
    const std::optional<Json> value = rule.find(key);
    if (!value) {
        return std::nullopt;
    }
    const std::optional<double> seconds = value->isNumberLiteral() ? value->numberValue() : std::nullopt;
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0.0 || *seconds > kMaxRuleDelaySeconds) {
        return "\"" + std::string(key) + "\" must be a number from 0 to 3600";
    }
    out = *seconds;
    return std::nullopt;
}

template <std::size_t N>
bool contains(const std::array<std::string_view, N>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool anyGlobMatches(const std::vector<std::string>& globs, const std::string& text) {
    return globs.empty() ||
           std::any_of(globs.begin(), globs.end(), [&](const std::string& glob) { return globMatches(glob, text); });
}

// Reads one rule; returns the problem, or nullopt when the rule is good.
class RuleReader {
public:
    explicit RuleReader(const Json& rule) : rule_(rule) {}

    std::optional<std::string> read(DevGatewayRule& out) const {
        if (!rule_.isObject()) {
            return "must be an object";
        }
        for (const JsonMemberView member : rule_.objectValue()) {
            if (!contains(kRuleKeys, member.key)) {
                return "unknown member \"" + std::string(member.key) + "\"";
            }
        }
        if (auto problem = readStrings("tool", out.toolGlobs)) return problem;
        if (auto problem = readStrings("workerName", out.workerNameGlobs)) return problem;
        if (auto problem = readStrings("serverCommand", out.serverCommandGlobs)) return problem;
        if (auto problem = readStrings("risk", out.risks)) return problem;
        for (const std::string& risk : out.risks) {
            if (!contains(kRiskNames, risk)) {
                return "\"risk\" must be \"safe\", \"caution\" or \"critical\", not \"" + risk + "\"";
            }
        }
        if (auto problem = readFlag("pinChanged", out.pinChanged)) return problem;
        if (auto problem = readFlag("pinKnown", out.pinKnown)) return problem;
        if (auto problem = readFlag("toolKnown", out.toolKnown)) return problem;
        const std::optional<Json> decision = rule_.find("decision");
        if (!decision) {
            return std::string("missing \"decision\" (\"allow\", \"deny\" or \"ask\")");
        }
        const std::string word(decision->isString() ? decision->stringValue() : std::string_view());
        if (word == "allow") {
            out.decision = DevGatewayDecision::allow;
        } else if (word == "deny") {
            out.decision = DevGatewayDecision::deny;
        } else if (word == "ask") {
            out.decision = DevGatewayDecision::ask;
        } else {
            return std::string("\"decision\" must be \"allow\", \"deny\" or \"ask\"");
        }
        if (const std::optional<Json> reason = rule_.find("reason")) {
            if (!reason->isString()) {
                return std::string("\"reason\" must be a string");
            }
            out.reason = reason->stringValue();
        }
        if (auto problem = readSeconds(rule_, "delaySeconds", out.delaySeconds)) return problem;
        if (auto problem = readSeconds(rule_, "timeoutSeconds", out.timeoutSeconds)) return problem;
        if (rule_.find("timeoutSeconds") && out.decision != DevGatewayDecision::ask) {
            return std::string("\"timeoutSeconds\" belongs to \"ask\" rules only");
        }
        return std::nullopt;
    }

private:
    std::optional<std::string> readFlag(std::string_view key, std::optional<bool>& out) const {
        if (const std::optional<Json> value = rule_.find(key)) {
            if (!value->isBool()) {
                return "\"" + std::string(key) + "\" must be true or false";
            }
            out = value->boolValue();
        }
        return std::nullopt;
    }

    // A condition is one string or a non-empty array of strings.
    std::optional<std::string> readStrings(std::string_view key, std::vector<std::string>& out) const {
        const std::optional<Json> value = rule_.find(key);
        if (!value) {
            return std::nullopt;
        }
        const std::string problem = "\"" + std::string(key) + "\" must be a string or a non-empty array of strings";
        if (value->isString()) {
            out.emplace_back(value->stringValue());
            return std::nullopt;
        }
        if (!value->isArray() || value->arrayValue().empty()) {
            return problem;
        }
        for (const Json& element : value->arrayValue()) {
            if (!element.isString()) {
                return problem;
            }
            out.emplace_back(element.stringValue());
        }
        return std::nullopt;
    }

    const Json& rule_;
};

} // namespace

std::variant<DevGatewayQuery, std::string> DevGatewayQuery::parse(const Json& body) {
    if (!body.isObject()) {
        return std::string("the body must be a JSON object");
    }
    DevGatewayQuery query;
    std::vector<std::string_view> seen;
    for (const JsonMemberView member : body.objectValue()) {
        if (std::find(seen.begin(), seen.end(), member.key) != seen.end()) {
            return "member \"" + std::string(member.key) + "\" appears more than once";
        }
        seen.push_back(member.key);
        if (std::string* field = queryField(query, member.key)) {
            if (!member.value.isString()) {
                return "member \"" + std::string(member.key) + "\" must be a string";
            }
            *field = member.value.stringValue();
        } else if (member.key == "pinChanged") {
            if (!member.value.isBool()) {
                return std::string("member \"pinChanged\" must be true or false");
            }
            query.pinChanged = member.value.boolValue();
        }
    }
    if (!body.find("tool")) {
        return std::string("member \"tool\" is missing");
    }
    return query;
}

std::string verdictBody(bool allow, const std::string& reason) {
    Json::Object members;
    members.push_back({"decision", Json::string(allow ? "allow" : "deny")});
    if (!allow) {
        members.push_back({"reason", Json::string(reason)});
    }
    return writeJson(Json::object(std::move(members))).value_or(R"({"decision":"deny"})");
}

std::string_view decisionName(DevGatewayDecision decision) {
    switch (decision) {
    case DevGatewayDecision::allow: return "allow";
    case DevGatewayDecision::ask: return "ask";
    default: return "deny";
    }
}

std::optional<std::string> firstDuplicateKey(const Json& value) {
    // Depth first with an explicit stack, so that no nesting depth can exhaust the C++ stack.
    std::vector<std::pair<Json, std::string>> pending{{value, std::string()}};
    while (!pending.empty()) {
        auto [node, path] = std::move(pending.back());
        pending.pop_back();
        std::vector<std::pair<Json, std::string>> children;
        if (node.isArray()) {
            std::size_t index = 0;
            for (const Json& element : node.arrayValue()) children.emplace_back(element, path + "[" + std::to_string(index++) + "]");
        } else if (node.isObject()) {
            std::vector<std::string_view> keys;
            for (const JsonMemberView member : node.objectValue()) {
                const std::string memberPath = (path.empty() ? std::string() : path + ".") + std::string(member.key);
                if (std::find(keys.begin(), keys.end(), member.key) != keys.end()) return memberPath;
                keys.push_back(member.key);
                children.emplace_back(member.value, memberPath);
            }
        }
        for (auto child = children.rbegin(); child != children.rend(); ++child) pending.push_back(std::move(*child));
    }
    return std::nullopt;
}

bool DevGatewayRule::matches(const DevGatewayQuery& query) const {
    if (pinChanged.has_value() && *pinChanged != query.pinChanged) {
        return false;
    }
    if (pinKnown.has_value() && *pinKnown != query.pinKnown) {
        return false;
    }
    if (toolKnown.has_value() && *toolKnown != query.toolKnown) {
        return false;
    }
    if (!risks.empty() && std::find(risks.begin(), risks.end(), query.risk) == risks.end()) {
        return false;
    }
    return anyGlobMatches(toolGlobs, query.tool) && anyGlobMatches(workerNameGlobs, query.workerName) &&
           anyGlobMatches(serverCommandGlobs, query.serverCommand);
}

DevGatewayPolicy::ParseResult DevGatewayPolicy::parse(std::string_view text, const std::string& sourceName) {
    const std::string where = "policy file " + sourceName + ": ";
    const std::optional<Json> document = parseJson(text);
    if (!document) {
        return where + "not valid JSON";
    }
    if (!document->isObject()) {
        return where + "the top level must be an object with a \"rules\" array";
    }
    // A repeated key would let a later "decision" silently override an earlier one.
    if (const std::optional<std::string> duplicate = firstDuplicateKey(*document)) {
        return where + *duplicate + ": duplicate key";
    }
    for (const JsonMemberView member : document->objectValue()) {
        if (!contains(kTopLevelKeys, member.key)) {
            return where + "unknown top-level member \"" + std::string(member.key) + "\"";
        }
    }
    const std::optional<Json> rules = document->find("rules");
    if (!rules || !rules->isArray()) {
        return where + "\"rules\" must be an array";
    }
    std::vector<DevGatewayRule> parsed;
    parsed.reserve(rules->arrayValue().size());
    for (std::size_t index = 0; index < rules->arrayValue().size(); ++index) {
        DevGatewayRule rule;
        if (auto problem = RuleReader(rules->arrayValue()[index]).read(rule)) {
            return where + "rules[" + std::to_string(index) + "]: " + *problem;
        }
        if (rule.decision == DevGatewayDecision::deny && rule.reason.empty()) {
            rule.reason = "denied by policy rule rules[" + std::to_string(index) + "]";
        }
        parsed.push_back(std::move(rule));
    }
    return DevGatewayPolicy(std::move(parsed));
}

DevGatewayPolicy::ParseResult DevGatewayPolicy::load(const std::string& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        return "policy file " + path + ": is a directory";
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "policy file " + path + ": cannot be read";
    }
    std::ostringstream text;
    text << file.rdbuf();
    return parse(text.str(), path);
}

DevGatewayVerdict DevGatewayPolicy::decide(const DevGatewayQuery& query) const {
    for (std::size_t index = 0; index < rules_.size(); ++index) {
        const DevGatewayRule& rule = rules_[index];
        if (rule.matches(query)) {
            return DevGatewayVerdict{rule.decision, rule.reason, rule.delaySeconds, rule.timeoutSeconds, index};
        }
    }
    return DevGatewayVerdict{DevGatewayDecision::deny, std::string(kNoRuleMatchedReason), 0.0,
                             kDefaultAskTimeoutSeconds, std::nullopt};
}

} // namespace sentrova
