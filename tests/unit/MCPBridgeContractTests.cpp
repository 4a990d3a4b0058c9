#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "TestSupport.hpp"

namespace sentrova {

namespace {

std::optional<std::string> given(const std::string& field) { return field == "-" ? std::nullopt : std::optional(field); }

TEST(BridgeContractTests, EveryBodyIsPostedByteForByteAndEveryVerdictMapsToItsDecision) {
    for (const auto& row : test::caseRows("bodies.txt", /*raw=*/true)) {
        std::string body = "?";
        if (row[0] == "screenshot") body = BridgeEvent::screenshot(row[1], row[2], row[3]).httpBody();
        if (row[0] == "pinViolation") body = BridgeEvent::pinViolation(row[1], row[2], row[3], row[4]).httpBody();
        if (row[0] == "query") {
            body = BridgeToolCallQuery{row[1], given(row[2]), row[3], row[4], row[5], *bridgeRiskFromRawValue(row[6]), row[7],
                                       row[8] == "true", given(row[9]), row[10]}.httpBody();
        }
        EXPECT_EQ(body, row.back()) << row[0] << " " << row[1];
    }
    // Every verdict shape maps to its decision.
    for (const auto& row : test::caseRows("verdicts.txt")) {
        const BridgeDecision decision = BridgeDecision::parse(row[0]);
        const std::string expected = row.size() < 2 ? "" : row[1] == "<policy>" ? std::string(GatewayDenyReason::policyDefault)
                                     : row[1] == "<unreadable>" ? std::string(GatewayDenyReason::unreadableVerdict) : row[1];
        EXPECT_EQ(decision.isAllow() ? "allow" : decision.reason(), expected) << row[0];
    }
}

} // namespace
} // namespace sentrova
