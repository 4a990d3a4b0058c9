#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "TestSupport.hpp"

namespace sentrova {

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
}

TEST(BridgeDecisionTests, EveryVerdictShapeMapsToItsDecision) {
    for (const auto& row : test::caseRows("verdicts.txt")) {
        const BridgeDecision decision = BridgeDecision::parse(row[0]);
        const std::string expected = row.size() < 2 ? "" : row[1] == "<policy>" ? std::string(GatewayDenyReason::policyDefault)
                                     : row[1] == "<unreadable>" ? std::string(GatewayDenyReason::unreadableVerdict) : row[1];
        EXPECT_EQ(decision.isAllow() ? "allow" : decision.reason(), expected) << row[0];
    }
}

} // namespace
} // namespace sentrova
