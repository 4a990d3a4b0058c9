#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

// Readable failure messages for decisions (file-local: other test files may print them too).
static void PrintTo(const BridgeDecision& decision, std::ostream* out) {
    *out << (decision.isAllow() ? std::string("allow") : "deny(" + decision.reason() + ")");
}

namespace {

BridgeToolCallQuery sampleQuery() {
    BridgeToolCallQuery query;
    query.workerName = "worker-1";
    query.serverCommand = "npx -y server";
    query.tool = "read_file";
    query.argumentsJSON = R"({"path":"/tmp/a \"b\""})";
    query.risk = BridgeRisk::critical;
    query.pinHash = "abc";
    query.requestID = "REQ-1";
    return query;
}

TEST(BridgeRiskTests, RawValuesRoundTripAndAreCaseSensitive) {
    for (BridgeRisk risk : {BridgeRisk::safe, BridgeRisk::caution, BridgeRisk::critical}) {
        EXPECT_EQ(bridgeRiskFromRawValue(rawValue(risk)), risk);
    }
    for (std::string_view raw : {"Safe", "CRITICAL", "caution ", "", "saf"}) {
        EXPECT_EQ(bridgeRiskFromRawValue(raw), std::nullopt) << raw;
    }
}

TEST(BridgeToolCallQueryTests, BodyHasItsMembersInNameOrderAndOptionalOnesOnlyWhenSet) {
    // The arguments text stays a string: its quotes escaped, its slashes plain.
    BridgeToolCallQuery query = sampleQuery();
    EXPECT_EQ(query.httpBody(),
              R"({"argumentsJSON":"{\"path\":\"/tmp/a \\\"b\\\"\"}","pinChanged":false,"pinHash":"abc",)"
              R"("requestID":"REQ-1","risk":"critical","serverCommand":"npx -y server","tool":"read_file",)"
              R"("workerName":"worker-1"})");
    query.argumentsJSON = "{}";
    query.risk = BridgeRisk::safe;
    query.pinChanged = true;
    query.previousPinHash = "old";
    query.provider = "acme";
    EXPECT_EQ(query.httpBody(),
              R"({"argumentsJSON":"{}","pinChanged":true,"pinHash":"abc","previousPinHash":"old",)"
              R"("provider":"acme","requestID":"REQ-1","risk":"safe","serverCommand":"npx -y server",)"
              R"("tool":"read_file","workerName":"worker-1"})");
    // An empty provider is a given provider; a missing previous pin leaves its member out.
    query.provider = "";
    query.previousPinHash.reset();
    query.risk = BridgeRisk::caution;
    EXPECT_EQ(query.httpBody(),
              R"({"argumentsJSON":"{}","pinChanged":true,"pinHash":"abc","provider":"","requestID":"REQ-1",)"
              R"("risk":"caution","serverCommand":"npx -y server","tool":"read_file","workerName":"worker-1"})");
}

TEST(BridgeEventTests, BodiesCarryExactlyTheirMembersInNameOrder) {
    EXPECT_EQ(BridgeEvent::screenshot("w", "iVBOR/+=", "image/jpeg").httpBody(),
              R"({"base64":"iVBOR/+=","kind":"screenshot","mimeType":"image/jpeg","workerName":"w"})");
    EXPECT_EQ(BridgeEvent::pinViolation("w", "t", "prev", "cur").httpBody(),
              R"({"kind":"pinViolation","pinHash":"cur","previousPinHash":"prev","tool":"t","workerName":"w"})");
    EXPECT_EQ(BridgeEvent::screenshot("w", "a", "b"), BridgeEvent::screenshot("w", "a", "b"));
    EXPECT_NE(BridgeEvent::pinViolation("w", "t", "a", "b"), BridgeEvent::pinViolation("w", "t", "b", "a"));
}

TEST(BridgeDecisionTests, EveryVerdictShapeMapsToItsDecision) {
    const BridgeDecision unreadable = BridgeDecision::deny(std::string(GatewayDenyReason::unreadableVerdict));
    const BridgeDecision policy = BridgeDecision::deny(std::string(GatewayDenyReason::policyDefault));
    struct Row {
        std::string body;
        BridgeDecision expected;
    };
    const std::vector<Row> rows = {
        {R"({"decision":"allow"})", BridgeDecision::allow()},
        {R"({"decision":"allow","reason":"ignored"})", BridgeDecision::allow()},
        {R"({"decision":"allow","other":[1,2]})", BridgeDecision::allow()},
        {R"({"decision":"deny","reason":"Not today."})", BridgeDecision::deny("Not today.")},
        {R"({"decision":"deny"})", policy},
        {R"({"decision":"deny","reason":""})", BridgeDecision::deny("")},
        {R"({"decision":"deny","reason":5})", policy},
        {R"({"decision":"deny","reason":null})", policy},
        {R"({"decision":"deny","reason":{"text":"x"}})", policy},
        {R"({"decision":"Allow"})", policy},
        {R"({"decision":"ALLOW","reason":"caps"})", BridgeDecision::deny("caps")},
        {R"({"decision":" allow"})", policy},
        {R"({"decision":""})", policy},
        {R"({"decision":"maybe","reason":"x/y"})", BridgeDecision::deny("x/y")},
        {R"({"decision":true})", unreadable},
        {R"({"decision":null})", unreadable},
        {R"({"decision":1})", unreadable},
        {R"({"decision":{"value":"allow"}})", unreadable},
        {R"({"decision":["allow"]})", unreadable},
        {R"({"decision":"deny","decision":"allow"})", unreadable},
        {R"({"decision":"allow","Decision":"deny"})", unreadable},
        {R"({"decision":"allow","deci)" "\xC5\xBF" R"(ion":"deny"})", unreadable},
        {R"({"Decision":"allow"})", unreadable},
        {R"({"reason":"no decision"})", unreadable},
        {"{}", unreadable},
        {R"([{"decision":"allow"}])", unreadable},
        {"", unreadable},
        {R"("allow")", unreadable},
        {"allow", unreadable},
        {R"({"decision":"allow")", unreadable},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(BridgeDecision::parse(row.body), row.expected) << row.body;
    }
}

} // namespace
} // namespace sentrova
