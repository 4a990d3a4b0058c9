#include <gtest/gtest.h>

#include <string>

#include "MCPBridgeCore/SmuggledCallGuard.hpp"

using sentrova::Json;
using sentrova::SmuggledCallGuard::inspect;

namespace {

const std::string kCall = R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"rm"}})";
const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";

std::string utf16le(const std::string& ascii) {
    std::string out;
    for (char c : ascii) {
        out.push_back(c);
        out.push_back('\0');
    }
    return out;
}

} // namespace

TEST(SmuggledCallGuardTests, OrdinaryLinesAreLeftAlone) {
    EXPECT_FALSE(inspect(kCall, true).smuggled);
    EXPECT_FALSE(inspect(kCall + "\r", true).smuggled) << "a trailing CR ends the line for everyone";
    EXPECT_FALSE(inspect("not json at all", false).smuggled);
    EXPECT_FALSE(inspect(kPing + "\r" + kPing, false).smuggled) << "no tool call hidden";
    EXPECT_FALSE(inspect(R"({"a":"x\r{\"method\":\"tools/call\",\"id\":1}"})", true).smuggled)
        << "an escaped CR inside a string hides nothing";
}

TEST(SmuggledCallGuardTests, CallsBehindACarriageReturnAreFound) {
    auto verdict = inspect(kPing + "\r" + kCall, false);
    EXPECT_TRUE(verdict.smuggled);
    ASSERT_EQ(verdict.ids.size(), 1u);
    EXPECT_EQ(verdict.ids[0], Json::integer(7));

    // A CR that the bridge reads as whitespace inside one object still splits it for a CR reader.
    verdict = inspect(R"({"x":)" "\r" + kCall + "\r}", true);
    EXPECT_TRUE(verdict.smuggled);
    EXPECT_EQ(verdict.ids.size(), 1u);

    // Without an id there is nobody to answer, but the line is still refused.
    verdict = inspect("garbage\r" R"({"method":"tools/call","params":{"name":"rm"}})", false);
    EXPECT_TRUE(verdict.smuggled);
    EXPECT_TRUE(verdict.ids.empty());
}

TEST(SmuggledCallGuardTests, CallsInAStreamOfValuesOrAnotherEncodingAreFound) {
    auto verdict = inspect(kPing + " " + kCall, false);
    EXPECT_TRUE(verdict.smuggled);
    ASSERT_EQ(verdict.ids.size(), 1u) << "found by several readings, answered once";

    EXPECT_TRUE(inspect("[" + kCall + "]" + kPing, false).smuggled) << "a batch in a broken line";
    EXPECT_TRUE(inspect(R"({"Method":"tools/call","ID":3} x)", false).smuggled) << "case variants count";

    verdict = inspect(utf16le(kCall), false);
    EXPECT_TRUE(verdict.smuggled);
    EXPECT_EQ(verdict.ids.size(), 1u);
    EXPECT_TRUE(inspect(std::string(1, '\0') + utf16le(kCall), false).smuggled) << "shifted by one byte";
    EXPECT_TRUE(inspect("\xFF\xFE" + utf16le(kCall), false).smuggled) << "with a byte order mark";
}
