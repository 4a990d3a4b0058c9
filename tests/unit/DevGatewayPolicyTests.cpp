#include <gtest/gtest.h>

#include <string>
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
    return DevGatewayQuery{std::move(tool), std::move(risk), std::move(workerName), std::move(serverCommand),
                           pinChanged};
}

} // namespace

TEST(DevGatewayGlobTests, MatchesWholeTextWithStarsQuestionMarksAndEscapes) {
    EXPECT_TRUE(globMatches("*", ""));
    EXPECT_TRUE(globMatches("*", "anything/at all"));
    EXPECT_TRUE(globMatches("get-*", "get-tiny-image"));
    EXPECT_FALSE(globMatches("get-*", "xget-sum"));
    EXPECT_FALSE(globMatches("echo", "echo2"));
    EXPECT_FALSE(globMatches("Echo", "echo"));
    EXPECT_TRUE(globMatches("read_?ile", "read_file"));
    EXPECT_FALSE(globMatches("read_?ile", "read_ile"));
    EXPECT_TRUE(globMatches("a*b*c", "a-b-b-x-c"));   // needs backtracking past the first "b"
    EXPECT_FALSE(globMatches("a*b*c", "a-b-b-x-cd"));
    EXPECT_TRUE(globMatches("*.js *", "node /x/dist/index.js /tmp"));
    EXPECT_TRUE(globMatches(R"(\*)", "*"));
    EXPECT_FALSE(globMatches(R"(\*)", "x"));
    EXPECT_TRUE(globMatches("caf?", "caf\xC3\xA9"));  // "?" takes the whole two-byte "é"
    EXPECT_FALSE(globMatches("", "a"));
    EXPECT_TRUE(globMatches("", ""));
}

TEST(DevGatewayPolicyTests, FirstMatchingRuleDecidesAndNoMatchDenies) {
    const DevGatewayPolicy policy = parsedPolicy(R"({
      "description": "test",
      "rules": [
        {"tool": "*", "pinChanged": true, "decision": "deny", "reason": "definition changed"},
        {"tool": ["echo", "get-*"], "decision": "allow", "comment": "read-only tools"},
        {"tool": "write_*", "risk": ["critical", "caution"], "decision": "deny"},
        {"workerName": "ci-*", "serverCommand": "*server-memory*", "decision": "allow", "delaySeconds": 1.5}
      ]})");
    ASSERT_EQ(policy.rules().size(), 4u);

    DevGatewayVerdict verdict = policy.decide(query("echo"));
    EXPECT_TRUE(verdict.allow);
    EXPECT_EQ(verdict.ruleIndex, 1u);

    verdict = policy.decide(query("echo", "safe", true));
    EXPECT_FALSE(verdict.allow);
    EXPECT_EQ(verdict.reason, "definition changed");
    EXPECT_EQ(verdict.ruleIndex, 0u);

    verdict = policy.decide(query("write_file", "critical"));
    EXPECT_FALSE(verdict.allow);
    EXPECT_EQ(verdict.reason, "denied by policy rule rules[2]");

    verdict = policy.decide(query("write_file", "safe", false, "ci-7", "node /x/server-memory/dist/index.js"));
    EXPECT_TRUE(verdict.allow);
    EXPECT_EQ(verdict.ruleIndex, 3u);
    EXPECT_DOUBLE_EQ(verdict.delaySeconds, 1.5);

    verdict = policy.decide(query("write_file", "safe", false, "dev", "node /x/server-memory/dist/index.js"));
    EXPECT_FALSE(verdict.allow);
    EXPECT_EQ(verdict.reason, kNoRuleMatchedReason);
    EXPECT_FALSE(verdict.ruleIndex.has_value());

    EXPECT_FALSE(DevGatewayPolicy().decide(query("echo")).allow);
}

TEST(DevGatewayPolicyTests, QueryIsReadFromTheBridgeBody) {
    auto body = parseJson(R"({"argumentsJSON":"{}","pinChanged":1,"pinHash":"","requestID":"X","risk":"safe",)"
                          R"("serverCommand":"node s.js","tool":"echo","workerName":"w"})");
    ASSERT_TRUE(body.has_value());
    const DevGatewayQuery read = DevGatewayQuery::fromBody(*body);
    EXPECT_EQ(read.tool, "echo");
    EXPECT_EQ(read.risk, "safe");
    EXPECT_EQ(read.workerName, "w");
    EXPECT_EQ(read.serverCommand, "node s.js");
    EXPECT_TRUE(read.pinChanged);

    const DevGatewayQuery odd = DevGatewayQuery::fromBody(*parseJson(R"({"tool":5,"pinChanged":"true"})"));
    EXPECT_EQ(odd.tool, "");
    EXPECT_FALSE(odd.pinChanged);
}

TEST(DevGatewayPolicyTests, VerdictBodiesAreWhatTheBridgeReads) {
    EXPECT_EQ((DevGatewayVerdict{true, "ignored", 0, 0}.responseBody()), R"({"decision":"allow"})");
    EXPECT_EQ((DevGatewayVerdict{false, "no \"x\" / y", 0, 0}.responseBody()),
              R"({"decision":"deny","reason":"no \"x\" / y"})");
}

TEST(DevGatewayPolicyTests, BadPoliciesNameTheFileTheRuleAndTheProblem) {
    EXPECT_EQ(parseError("{"), "policy file policies/team.json: not valid JSON");
    EXPECT_EQ(parseError("[]"),
              "policy file policies/team.json: the top level must be an object with a \"rules\" array");
    EXPECT_EQ(parseError(R"({"rules":{}})"), "policy file policies/team.json: \"rules\" must be an array");
    EXPECT_EQ(parseError(R"({"rule":[]})"), "policy file policies/team.json: unknown top-level member \"rule\"");

    const std::string good = R"({"tool":"a","decision":"allow"},)";
    EXPECT_EQ(parseError(R"({"rules":[)" + good + R"({"tools":"b","decision":"allow"}]})"),
              "policy file policies/team.json: rules[1]: unknown member \"tools\"");
    EXPECT_EQ(parseError(R"({"rules":[)" + good + R"({"tool":"b"}]})"),
              "policy file policies/team.json: rules[1]: missing \"decision\" (\"allow\" or \"deny\")");
    EXPECT_EQ(parseError(R"({"rules":[)" + good + good + R"({"tool":"b","decision":"Allow"}]})"),
              "policy file policies/team.json: rules[2]: \"decision\" must be \"allow\" or \"deny\"");
    EXPECT_NE(parseError(R"({"rules":[{"risk":"high","decision":"deny"}]})").find("rules[0]: \"risk\" must be"),
              std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[{"tool":[],"decision":"deny"}]})").find("rules[0]: \"tool\" must be"),
              std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[{"pinChanged":"yes","decision":"deny"}]})").find("\"pinChanged\""),
              std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[{"decision":"allow","delaySeconds":-1}]})").find("\"delaySeconds\""),
              std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[{"decision":"allow","delaySeconds":"2"}]})").find("\"delaySeconds\""),
              std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[{"decision":"deny","reason":7}]})").find("\"reason\""), std::string::npos);
    EXPECT_NE(parseError(R"({"rules":[5]})").find("rules[0]: must be an object"), std::string::npos);

    auto missing = DevGatewayPolicy::load("/nonexistent/policy.json");
    ASSERT_TRUE(std::holds_alternative<std::string>(missing));
    EXPECT_EQ(std::get<std::string>(missing), "policy file /nonexistent/policy.json: cannot be read");
}
