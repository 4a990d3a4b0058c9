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
    return DevGatewayQuery{std::move(tool), std::move(risk), std::move(workerName), std::move(serverCommand),
                           pinChanged};
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
    const std::string good = R"({"tool":"a","decision":"allow"},)";
    // The whole message after "policy file policies/team.json: ", or a part of it.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{", "not valid JSON"},
        {"[]", "the top level must be an object with a \"rules\" array"},
        {R"({"rules":{}})", "\"rules\" must be an array"},
        {R"({"rule":[]})", "unknown top-level member \"rule\""},
        {R"({"rules":[)" + good + R"({"tools":"b","decision":"allow"}]})", "rules[1]: unknown member \"tools\""},
        {R"({"rules":[)" + good + R"({"tool":"b"}]})", "rules[1]: missing \"decision\" (\"allow\" or \"deny\")"},
        {R"({"rules":[)" + good + good + R"({"tool":"b","decision":"Allow"}]})",
         "rules[2]: \"decision\" must be \"allow\" or \"deny\""},
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
