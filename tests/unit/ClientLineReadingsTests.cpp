#include <gtest/gtest.h>

#include <string>

#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

// "relay" for a relayed line, else the answers to a refused line as "call:<id>" or "other:<id>".
std::string answers(const std::string& line) {
    const auto reading = ClientLineReadings::read(line);
    if (reading.message) return "relay";
    std::string out;
    for (const auto& request : reading.refused) {
        out += std::string(out.empty() ? "" : " ") + (request.toolCall ? "call:" : "other:") +
               writeJson(request.id, {.verbatimNumbers = true}).value_or("?");
    }
    return out;
}

TEST(ClientLineReadingsTests, EachLineIsRelayedOrEveryRequestInItIsAnsweredInLinearTime) {
    for (const auto& row : test::caseRows("client-lines.txt")) EXPECT_EQ(answers(row[0]), row.size() > 1 ? row[1] : "") << row[0];
    std::string line = "[";
    for (int i = 0; i < 160000; ++i) line += R"({"id":)" + std::to_string(i) + R"(,"method":"tools/call"},)";
    line.back() = ']';
    const auto start = test::Clock::now();
    EXPECT_EQ(ClientLineReadings::read(line).refused.size(), 160000u);
    EXPECT_LT(test::secondsSince(start), 20.0);
}

} // namespace
} // namespace sentrova
