#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <variant>

#include "sentrova-dev-gateway/DevGatewayGlob.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"
#include "TestSupport.hpp"

using namespace sentrova;

namespace {

// The verdict on a query body read as the gateway reads it, in a row's words.
std::string outcome(const DevGatewayPolicy& policy, const std::string& body, const std::string& known) {
    auto parsed = DevGatewayQuery::parse(parseJson(body).value_or(Json()));
    if (!std::holds_alternative<DevGatewayQuery>(parsed)) return "rejected";
    DevGatewayQuery query = std::get<DevGatewayQuery>(parsed);
    query.toolKnown = known.find('t') != std::string::npos;
    query.pinKnown = known.find('p') != std::string::npos;
    const DevGatewayVerdict verdict = policy.decide(query);
    std::ostringstream out;
    out << decisionName(verdict.decision);
    if (verdict.ruleIndex) out << " rule " << *verdict.ruleIndex;
    if (verdict.delaySeconds != 0) out << " after " << verdict.delaySeconds << " s";
    if (verdict.decision == DevGatewayDecision::ask) out << " within " << verdict.timeoutSeconds << " s";
    if (!verdict.reason.empty()) out << ": " << verdict.reason;
    return out.str();
}

} // namespace

TEST(DevGatewayGlobTests, MatchesWholeTextWithStarsQuestionMarksAndEscapes) {
    for (const auto& row : test::caseRows("globs.txt")) {
        EXPECT_EQ(globMatches(row[0], row[1]), row[2] == "yes") << row[0] << " / " << row[1];
    }
}

TEST(DevGatewayPolicyTests, FirstMatchingRuleDecidesAndNoMatchDenies) {
    auto parsed = DevGatewayPolicy::parse(R"({"description": "test", "rules": [
        {"tool": "*", "pinChanged": true, "decision": "deny", "reason": "definition changed"},
        {"tool": ["echo", "get-*"], "decision": "allow", "comment": "read-only tools"},
        {"tool": "write_*", "risk": ["critical", "caution"], "decision": "deny"},
        {"workerName": "ci-*", "serverCommand": "*server-memory*", "decision": "allow", "delaySeconds": 1.5},
        {"tool": "fetch", "toolKnown": true, "pinKnown": false, "decision": "ask", "timeoutSeconds": 300}]})", "test.json");
    ASSERT_TRUE(std::holds_alternative<DevGatewayPolicy>(parsed));
    const DevGatewayPolicy& policy = std::get<DevGatewayPolicy>(parsed);
    EXPECT_EQ(policy.rules().size(), 5u);
    for (const auto& row : test::caseRows("policy-decisions.txt")) EXPECT_EQ(outcome(policy, row[0], row[1]), row[2]) << row[0];
    EXPECT_EQ(outcome(DevGatewayPolicy(), R"({"tool":"echo"})", "-"), "deny: no policy rule matched");
}

TEST(DevGatewayPolicyTests, BadPoliciesNameTheFileTheRuleAndTheProblem) {
    for (const auto& row : test::caseRows("policy-errors.txt")) {
        auto result = DevGatewayPolicy::parse(row[0], "policies/team.json");
        const std::string error = std::holds_alternative<std::string>(result) ? std::get<std::string>(result) : "accepted";
        EXPECT_TRUE(error.starts_with("policy file policies/team.json: " + row[1])) << error;
    }
    auto missing = DevGatewayPolicy::load("/nonexistent/policy.json");
    ASSERT_TRUE(std::holds_alternative<std::string>(missing));
    EXPECT_EQ(std::get<std::string>(missing), "policy file /nonexistent/policy.json: cannot be read");
}
