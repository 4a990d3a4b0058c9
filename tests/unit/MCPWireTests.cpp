#include <gtest/gtest.h>

#include <string>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

Json parsed(std::string_view text) {
    std::optional<Json> value = parseJson(text);
    EXPECT_TRUE(value.has_value()) << text;
    return value ? std::move(*value) : Json();
}

// The value of "v" in {"v":<text>}, so that scalars can be read too.
Json parsedValue(const std::string& text) {
    const Json wrapper = parsed(R"({"v":)" + text + "}");
    return wrapper.find("v").value_or(Json());
}

TEST(MCPWireTests, IdKeysAnswerKeysAndRiskFloorsFollowTheirTables) {
    for (const auto& row : test::caseRows("ids.txt")) {
        const Json id = parsedValue(row[0]);
        EXPECT_EQ(MCPWire::idKey(id).value_or("-"), row[1]) << row[0];
        std::string keys;
        for (const std::string& key : MCPWire::answerKeys(id)) keys += (keys.empty() ? "" : " ") + key;
        EXPECT_EQ(keys, row.size() > 2 ? row[2] : "") << row[0];
    }
    for (const auto& row : test::caseRows("risk.txt")) {
        const Json annotations = row[0] == "-" ? Json() : parsed(row[0]);
        EXPECT_EQ(rawValue(MCPWire::riskFloor(row[0] == "-" ? std::nullopt : std::optional(annotations))), row[1]) << row[0];
    }
}

// Deny answers, progress lines, pins, image blocks and deny texts: one row each in wire.txt.
TEST(MCPWireTests, WrittenMessagesPinsAndImagesMatchTheirRows) {
    for (const auto& row : test::caseRows("wire.txt", /*raw=*/true)) {
        const std::string& kind = row[0];
        std::string actual = "?";
        if (kind == "deny") actual = MCPWire::denyResult(parsedValue(row[1]), row[2]);
        if (kind == "invalid") actual = MCPWire::invalidRequest(parsedValue(row[1]));
        if (kind == "progress") actual = MCPWire::progressNotification(parsedValue(row[1]), std::stoll(row[2]), row[3]);
        if (kind == "pin") actual = MCPWire::pinHash(parsed(row[1]));
        if (kind == "denyMessage") actual = MCPBridgeRouter::denyMessage(row[1], row[2], row[3] == "pin");
        if (kind == "image") {
            const auto block = MCPWire::firstImageBlock(parsed(row[1]));
            actual = block ? block->base64 + " " + block->mimeType : "-";
        }
        EXPECT_EQ(actual, row.back()) << kind << " " << row[1];
    }
    // A schema of any depth is pinned, without recursion.
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"t","inputSchema":)" + deep + "}")).size(), 64u);
}

TEST(MCPWireToolCallTests, OnlyCallsTheGatewayCanSeeFaithfullyAreAsked) {
    using Outcome = MCPWire::ToolCallReading::Outcome;
    for (const auto& row : test::caseRows("tool-calls.txt")) {
        const MCPWire::ToolCallReading reading = MCPWire::readToolCall(parsed("{" + row[0] + "}"));
        const char* outcome = reading.outcome == Outcome::ask ? "ask" : reading.outcome == Outcome::refuse ? "refuse" : "drop";
        EXPECT_EQ(outcome, row[1]) << row[0];
        EXPECT_EQ(reading.outcome == Outcome::ask ? reading.argumentsText : "", row.size() > 2 ? row[2] : "") << row[0];
    }
}

} // namespace
} // namespace sentrova
