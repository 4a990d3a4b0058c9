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
constexpr std::array<std::string_view, 9> kRuleKeys = {
    "tool", "risk", "pinChanged", "workerName", "serverCommand", "decision", "reason", "delaySeconds", "comment"};
constexpr std::array<std::string_view, 3> kTopLevelKeys = {"rules", "description", "comment"};

std::string stringMember(const Json& body, std::string_view key) {
    const Json* value = body.find(key);
    return (value != nullptr && value->isString()) ? value->stringValue() : std::string();
}

// Booleans read like everywhere else in the system: true/false, or a number exactly 1 or 0.
bool booleanMember(const Json& body, std::string_view key) {
    const Json* value = body.find(key);
    if (value == nullptr) {
        return false;
    }
    const std::optional<double> number = value->numberValue();
    return number.has_value() && *number == 1.0;
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
        for (const JsonMember& member : rule_.objectValue()) {
            if (!contains(kRuleKeys, member.key)) {
                return "unknown member \"" + member.key + "\"";
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
        if (const Json* pinChanged = rule_.find("pinChanged")) {
            if (!pinChanged->isBool()) {
                return std::string("\"pinChanged\" must be true or false");
            }
            out.pinChanged = pinChanged->boolValue();
        }
        const Json* decision = rule_.find("decision");
        if (decision == nullptr) {
            return std::string("missing \"decision\" (\"allow\" or \"deny\")");
        }
        if (!decision->isString() || (decision->stringValue() != "allow" && decision->stringValue() != "deny")) {
            return std::string("\"decision\" must be \"allow\" or \"deny\"");
        }
        out.allow = decision->stringValue() == "allow";
        if (const Json* reason = rule_.find("reason")) {
            if (!reason->isString()) {
                return std::string("\"reason\" must be a string");
            }
            out.reason = reason->stringValue();
        }
        if (const Json* delay = rule_.find("delaySeconds")) {
            const std::optional<double> seconds = delay->isNumberLiteral() ? delay->numberValue() : std::nullopt;
            if (!seconds || !std::isfinite(*seconds) || *seconds < 0.0 || *seconds > kMaxRuleDelaySeconds) {
                return std::string("\"delaySeconds\" must be a number from 0 to 3600");
            }
            out.delaySeconds = *seconds;
        }
        return std::nullopt;
    }

private:
    // A condition is one string or a non-empty array of strings.
    std::optional<std::string> readStrings(std::string_view key, std::vector<std::string>& out) const {
        const Json* value = rule_.find(key);
        if (value == nullptr) {
            return std::nullopt;
        }
        const std::string problem = "\"" + std::string(key) + "\" must be a string or a non-empty array of strings";
        if (value->isString()) {
            out.push_back(value->stringValue());
            return std::nullopt;
        }
        if (!value->isArray() || value->arrayValue().empty()) {
            return problem;
        }
        for (const Json& element : value->arrayValue()) {
            if (!element.isString()) {
                return problem;
            }
            out.push_back(element.stringValue());
        }
        return std::nullopt;
    }

    const Json& rule_;
};

} // namespace

DevGatewayQuery DevGatewayQuery::fromBody(const Json& body) {
    DevGatewayQuery query;
    query.tool = stringMember(body, "tool");
    query.risk = stringMember(body, "risk");
    query.workerName = stringMember(body, "workerName");
    query.serverCommand = stringMember(body, "serverCommand");
    query.pinChanged = booleanMember(body, "pinChanged");
    return query;
}

std::string DevGatewayVerdict::responseBody() const {
    Json::Object members;
    members.push_back({"decision", Json::string(allow ? "allow" : "deny")});
    if (!allow) {
        members.push_back({"reason", Json::string(reason)});
    }
    return writeJson(Json::object(std::move(members))).value_or(R"({"decision":"deny"})");
}

bool DevGatewayRule::matches(const DevGatewayQuery& query) const {
    if (pinChanged.has_value() && *pinChanged != query.pinChanged) {
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
    for (const JsonMember& member : document->objectValue()) {
        if (!contains(kTopLevelKeys, member.key)) {
            return where + "unknown top-level member \"" + member.key + "\"";
        }
    }
    const Json* rules = document->find("rules");
    if (rules == nullptr || !rules->isArray()) {
        return where + "\"rules\" must be an array";
    }
    std::vector<DevGatewayRule> parsed;
    parsed.reserve(rules->arrayValue().size());
    for (std::size_t index = 0; index < rules->arrayValue().size(); ++index) {
        DevGatewayRule rule;
        if (auto problem = RuleReader(rules->arrayValue()[index]).read(rule)) {
            return where + "rules[" + std::to_string(index) + "]: " + *problem;
        }
        if (!rule.allow && rule.reason.empty()) {
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
            return DevGatewayVerdict{rule.allow, rule.reason, rule.delaySeconds, index};
        }
    }
    return DevGatewayVerdict{false, std::string(kNoRuleMatchedReason), 0.0, std::nullopt};
}

} // namespace sentrova
