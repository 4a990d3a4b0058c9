#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>
#include <variant>

#include "sentrova-dev-gateway/DevGatewayGlob.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"
#include "TestSupport.hpp"

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
    return std::holds_alternative<std::string>(result) ? std::get<std::string>(result) : "accepted";
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

bool allows(const DevGatewayVerdict& verdict) { return verdict.decision == DevGatewayDecision::allow; }

} // namespace

TEST(DevGatewayGlobTests, MatchesWholeTextWithStarsQuestionMarksAndEscapes) {
    for (const auto& row : test::caseRows("globs.txt")) {
        EXPECT_EQ(globMatches(row[0], row[1]), row[2] == "yes") << row[0] << " / " << row[1];
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
    const DevGatewayQuery read = std::get<DevGatewayQuery>(DevGatewayQuery::parse(*body));
    EXPECT_EQ(read.tool + "|" + read.risk + "|" + read.workerName + "|" + read.serverCommand, "echo|safe|w|node s.js");
    EXPECT_TRUE(read.pinChanged);
    for (const char* odd : {R"({"tool":"x","pinChanged":1})", R"({"risk":"safe"})", R"({"tool":"x","risk":null})"}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(DevGatewayQuery::parse(*parseJson(odd)))) << odd;
    }
}

TEST(DevGatewayPolicyTests, BadPoliciesNameTheFileTheRuleAndTheProblem) {
    for (const auto& row : test::caseRows("policy-errors.txt")) {
        EXPECT_TRUE(parseError(row[0]).starts_with("policy file policies/team.json: " + row[1])) << parseError(row[0]);
    }
    auto missing = DevGatewayPolicy::load("/nonexistent/policy.json");
    ASSERT_TRUE(std::holds_alternative<std::string>(missing));
    EXPECT_EQ(std::get<std::string>(missing), "policy file /nonexistent/policy.json: cannot be read");
}
