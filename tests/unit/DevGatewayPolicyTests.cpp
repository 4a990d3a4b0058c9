#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>
#include <variant>

#include "sentrova-dev-gateway/DevGatewayGlob.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"

using namespace sentrova;

namespace {

DevGatewayPolicy parsedPolicy(const std::string& text) {
    auto result = DevGatewayPolicy::parse(text, "test.json");
    if (auto* error = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << *error;
        return DevGatewayPolicy();
    }
    return std::get<DevGatewayPolicy>(std::move(result));
}

std::string parseError(const std::string& text) {
    auto result = DevGatewayPolicy::parse(text, "policies/team.json");
    if (auto* error = std::get_if<std::string>(&result)) {
        return *error;
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

DevGatewayQuery query(std::string tool, std::string risk = "caution", bool pinChanged = false,
                      std::string workerName = "worker", std::string serverCommand = "node server.js") {
    DevGatewayQuery made;
    made.tool = std::move(tool);
    made.risk = std::move(risk);
    made.workerName = std::move(workerName);
    made.serverCommand = std::move(serverCommand);
    made.pinChanged = pinChanged;
    return made;
}

bool allows(const DevGatewayVerdict& verdict) {
    return verdict.decision == DevGatewayDecision::allow;
}

} // namespace

TEST(DevGatewayGlobTests, MatchesWholeTextWithStarsQuestionMarksAndEscapes) {
    const std::vector<std::tuple<const char*, const char*, bool>> cases = {
        {"*", "", true},          {"*", "anything/at all", true},  {"get-*", "get-tiny-image", true},
        {"get-*", "xget-sum", false}, {"echo", "echo2", false},    {"Echo", "echo", false},
        {"read_?ile", "read_file", true}, {"read_?ile", "read_ile", false},
        {"a*b*c", "a-b-b-x-c", true}, // needs backtracking past the first "b"
        {"a*b*c", "a-b-b-x-cd", false}, {"*.js *", "node /x/dist/index.js /tmp", true},
        {R"(\*)", "*", true},     {R"(\*)", "x", false},
        {"caf?", "caf\xC3\xA9", true}, // "?" takes the whole two-byte "é"
        {"", "a", false},         {"", "", true},
    };
    for (const auto& [pattern, text, matches] : cases) {
        EXPECT_EQ(globMatches(pattern, text), matches) << pattern << " / " << text;
    }
}

TEST(DevGatewayPolicyTests, FirstMatchingRuleDecidesAndNoMatchDenies) {
    const DevGatewayPolicy policy = parsedPolicy(R"({
      "description": "test",
      "rules": [
        {"tool": "*", "pinChanged": true, "decision": "deny", "reason": "definition changed"},
        {"tool": ["echo", "get-*"], "decision": "allow", "comment": "read-only tools"},
        {"tool": "write_*", "risk": ["critical", "caution"], "decision": "deny"},
        {"workerName": "ci-*", "serverCommand": "*server-memory*", "decision": "allow", "delaySeconds": 1.5},
        {"tool": "fetch", "toolKnown": true, "pinKnown": false, "decision": "ask", "timeoutSeconds": 300}
      ]})");
    ASSERT_EQ(policy.rules().size(), 5u);

    DevGatewayVerdict verdict = policy.decide(query("echo"));
    EXPECT_TRUE(allows(verdict));
    EXPECT_EQ(verdict.ruleIndex, 1u);

    verdict = policy.decide(query("echo", "safe", true));
    EXPECT_FALSE(allows(verdict));
    EXPECT_EQ(verdict.reason, "definition changed");
    EXPECT_EQ(verdict.ruleIndex, 0u);

    verdict = policy.decide(query("write_file", "critical"));
    EXPECT_FALSE(allows(verdict));
    EXPECT_EQ(verdict.reason, "denied by policy rule rules[2]");

    verdict = policy.decide(query("write_file", "safe", false, "ci-7", "node /x/server-memory/dist/index.js"));
    EXPECT_TRUE(allows(verdict));
    EXPECT_EQ(verdict.ruleIndex, 3u);
    EXPECT_DOUBLE_EQ(verdict.delaySeconds, 1.5);

    verdict = policy.decide(query("write_file", "safe", false, "dev", "node /x/server-memory/dist/index.js"));
    EXPECT_FALSE(allows(verdict));
    EXPECT_EQ(verdict.reason, kNoRuleMatchedReason);
    EXPECT_FALSE(verdict.ruleIndex.has_value());

    EXPECT_FALSE(allows(DevGatewayPolicy().decide(query("echo"))));

    DevGatewayQuery changed = query("fetch");
    EXPECT_EQ(policy.decide(changed).ruleIndex, std::nullopt); // never allowed before: not this rule
    changed.toolKnown = true;
    verdict = policy.decide(changed);
    EXPECT_EQ(verdict.decision, DevGatewayDecision::ask);
    EXPECT_DOUBLE_EQ(verdict.timeoutSeconds, 300);
    changed.pinKnown = true;
    EXPECT_EQ(policy.decide(changed).ruleIndex, std::nullopt);
}

TEST(DevGatewayPolicyTests, QueryIsReadFromTheBridgeBodyStrictly) {
    auto body = parseJson(R"({"argumentsJSON":"{}","pinChanged":true,"pinHash":"","requestID":"X","risk":"safe",)"
                          R"("serverCommand":"node s.js","tool":"echo","workerName":"w","future":[1]})");
    ASSERT_TRUE(body.has_value());
    const DevGatewayQuery read = std::get<DevGatewayQuery>(DevGatewayQuery::parse(*body));
    EXPECT_EQ(read.tool, "echo");
    EXPECT_EQ(read.risk, "safe");
    EXPECT_EQ(read.workerName, "w");
    EXPECT_EQ(read.serverCommand, "node s.js");
    EXPECT_TRUE(read.pinChanged);

    for (const char* odd : {R"({"tool":5})", R"({"tool":"x","pinChanged":"true"})", R"({"tool":"x","pinChanged":1})",
                            R"({"risk":"safe"})", R"({"tool":"rm","tool":"echo"})", R"({"tool":"x","risk":null})"}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(DevGatewayQuery::parse(*parseJson(odd)))) << odd;
    }
    EXPECT_EQ(verdictBody(true, "ignored"), R"({"decision":"allow"})");
    EXPECT_EQ(verdictBody(false, "no \"x\" / y"), R"({"decision":"deny","reason":"no \"x\" / y"})");
}

TEST(DevGatewayPolicyTests, BadPoliciesNameTheFileTheRuleAndTheProblem) {
    const std::string good = R"({"tool":"a","decision":"allow"},)";
    // The whole message after "policy file policies/team.json: ", or a part of it.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{", "not valid JSON"},
        {"[]", "the top level must be an object with a \"rules\" array"},
        {R"({"rules":{}})", "\"rules\" must be an array"},
        {R"({"rule":[]})", "unknown top-level member \"rule\""},
        {R"({"rules":[)" + good + R"({"tools":"b","decision":"allow"}]})", "rules[1]: unknown member \"tools\""},
        {R"({"rules":[)" + good + R"({"tool":"b"}]})", "rules[1]: missing \"decision\""},
        {R"({"rules":[)" + good + good + R"({"tool":"b","decision":"Allow"}]})",
         "rules[2]: \"decision\" must be \"allow\", \"deny\" or \"ask\""},
        {R"({"rules":[)" + good + R"({"decision":"deny","decision":"allow"}]})", "rules[1].decision: duplicate key"},
        {R"({"rules":[{"tool":["a",{"x":1,"x":2}],"decision":"deny"}]})", "rules[0].tool[1].x: duplicate key"},
        {R"({"rules":[],"rules":[]})", "rules: duplicate key"},
        {R"({"rules":[{"decision":"allow","timeoutSeconds":5}]})", "rules[0]: \"timeoutSeconds\" belongs"},
        {R"({"rules":[{"decision":"ask","pinKnown":1}]})", "rules[0]: \"pinKnown\""},
        {R"({"rules":[{"risk":"high","decision":"deny"}]})", "rules[0]: \"risk\" must be"},
        {R"({"rules":[{"tool":[],"decision":"deny"}]})", "rules[0]: \"tool\" must be"},
        {R"({"rules":[{"pinChanged":"yes","decision":"deny"}]})", "rules[0]: \"pinChanged\""},
        {R"({"rules":[{"decision":"allow","delaySeconds":-1}]})", "rules[0]: \"delaySeconds\""},
        {R"({"rules":[{"decision":"allow","delaySeconds":"2"}]})", "rules[0]: \"delaySeconds\""},
        {R"({"rules":[{"decision":"deny","reason":7}]})", "rules[0]: \"reason\""},
        {R"({"rules":[5]})", "rules[0]: must be an object"},
    };
    for (const auto& [text, problem] : cases) {
        EXPECT_EQ(parseError(text).rfind("policy file policies/team.json: " + problem, 0), 0u) << parseError(text);
    }
    EXPECT_EQ(parseError("{"), "policy file policies/team.json: not valid JSON");
    auto missing = DevGatewayPolicy::load("/nonexistent/policy.json");
    ASSERT_TRUE(std::holds_alternative<std::string>(missing));
    EXPECT_EQ(std::get<std::string>(missing), "policy file /nonexistent/policy.json: cannot be read");
}
