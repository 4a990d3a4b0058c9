#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "MCPBridgeCore/Json.hpp"
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
    Json wrapper = parsed(R"({"v":)" + text + "}");
    const Json* value = wrapper.find("v");
    return value != nullptr ? *value : Json();
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
        EXPECT_EQ(rawValue(MCPWire::riskFloor(row[0] == "-" ? nullptr : &annotations)), row[1]) << row[0];
    }
}

TEST(MCPWireFirstImageTests, FindsFirstQualifyingBlock) {
    const auto image = [](const std::string& result) { return MCPWire::firstImageBlock(parsed(result)); };
    using Block = MCPWire::ImageBlock;

    EXPECT_EQ(image(R"({"content":[{"type":"image","data":5},{"type":"image","data":"QUJD"}]})"),
              (Block{"QUJD", "image/png"}));
    EXPECT_EQ(image(R"({"content":[{"type":"text","text":"hi"},{},)"
                    R"({"type":"image","data":"x/y","mimeType":"image/webp"},)"
                    R"({"type":"image","data":"second","mimeType":"image/gif"}]})"),
              (Block{"x/y", "image/webp"}));
    EXPECT_EQ(image(R"({"content":[{"type":"image","data":"d","mimeType":7}]})"), (Block{"d", "image/png"}));

    EXPECT_EQ(image(R"({"content":[{"type":"Image","data":"d"},{"type":"IMAGE","data":"d"}]})"), std::nullopt);
    EXPECT_EQ(image(R"({"content":["text",{"type":"image","data":"d"}]})"), std::nullopt);
    EXPECT_EQ(image(R"({"content":{"type":"image","data":"d"}})"), std::nullopt);
    EXPECT_EQ(image(R"({"isError":false})"), std::nullopt);
}

TEST(MCPWireDenyResultTests, ExactBytesAndFallback) {
    EXPECT_EQ(MCPWire::denyResult(Json::integer(7), "Denied by Sentrova policy."),
              R"({"id":7,"jsonrpc":"2.0","result":{"content":[{"text":"Denied by Sentrova policy.","type":"text"}],)"
              R"("isError":true}})");
    EXPECT_EQ(MCPWire::denyResult(Json::string("req/1"), "Nicht erlaubt: /etc \"größe\""),
              R"({"id":"req/1","jsonrpc":"2.0","result":{"content":[{"text":"Nicht erlaubt: /etc \"größe\"",)"
              R"("type":"text"}],"isError":true}})");
    // An id is written back from its value, objects with sorted keys.
    EXPECT_EQ(MCPWire::denyResult(parsedValue(R"({"b":1,"a":[true,null]})"), "x"),
              R"({"id":{"a":[true,null],"b":1},"jsonrpc":"2.0","result":{"content":[{"text":"x","type":"text"}],)"
              R"("isError":true}})");

    const std::string fallback = R"({"jsonrpc":"2.0","result":{"isError":true}})";
    EXPECT_EQ(MCPWire::denyResult(Json::real(std::nan("")), "x"), fallback);
    EXPECT_EQ(MCPWire::denyResult(Json::real(std::numeric_limits<double>::infinity()), "x"), fallback);
    EXPECT_EQ(MCPWire::denyResult(parsedValue("NaN"), "x"), fallback);
    // Numbers go back with the client's own digits.
    for (const char* id : {"1e400", "100000000000000000001", "1.50", "-0.0", "[2E1]"}) {
        EXPECT_EQ(MCPWire::denyResult(parsedValue(id), "x").substr(0, 6 + std::strlen(id)), std::string(R"({"id":)") + id);
        EXPECT_NE(MCPWire::invalidRequest(parsedValue(id)).find(std::string(R"("id":)") + id + ","), std::string::npos);
    }
}

TEST(MCPWireToolCallTests, OnlyCallsTheGatewayCanSeeFaithfullyAreAsked) {
    using Outcome = MCPWire::ToolCallReading::Outcome;
    for (const auto& row : test::caseRows("tool-calls.txt")) {
        const MCPWire::ToolCallReading reading = MCPWire::readToolCall(parsed("{" + row[0] + "}"));
        const char* outcome = reading.outcome == Outcome::ask ? "ask" : reading.outcome == Outcome::refuse ? "refuse" : "drop";
        EXPECT_EQ(outcome, row[1]) << row[0];
        if (reading.outcome == Outcome::ask) {
            EXPECT_EQ(reading.argumentsText, row[2]) << row[0];
        }
    }
    // Only strings and numbers are tokens to echo.
    for (const auto& [token, echoed] : {std::pair{"\"a\"", true}, {"1e2", true}, {"true", false}, {"null", false}}) {
        const Json message = parsed(R"({"id":1,"params":{"name":"t","_meta":{"progressToken":)" + std::string(token) + "}}}");
        EXPECT_EQ(MCPWire::readToolCall(message).progressToken != nullptr, echoed) << token;
    }
}

TEST(MCPWireProgressTests, ExactBytesAndFallback) {
    EXPECT_EQ(MCPWire::progressNotification(Json::integer(1), 3, "Awaiting Sentrova approval…"),
              R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"message":"Awaiting Sentrova )"
              R"(approval…","progress":3,"progressToken":1}})");
    EXPECT_EQ(MCPWire::progressNotification(Json::string("t"), INT64_MAX, "a/b"),
              R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"message":"a/b",)"
              R"("progress":9223372036854775807,"progressToken":"t"}})");

    const std::string fallback = R"({"jsonrpc":"2.0","method":"notifications/progress"})";
    EXPECT_EQ(MCPWire::progressNotification(Json::real(-std::numeric_limits<double>::infinity()), 1, "m"),
              fallback);
    EXPECT_EQ(MCPWire::progressNotification(parsedValue("Infinity"), 1, "m"), fallback);
    EXPECT_NE(MCPWire::progressNotification(parsedValue("100000000000000000001"), 1, "m").find(":100000000000000000001}"),
              std::string::npos);
}

TEST(MCPWirePinHashTests, WorkedDefinitionsPinToKnownDigests) {
    EXPECT_EQ(MCPWire::pinHash(parsed(
                  R"({"name":"read_file","description":"Read a file under /tmp","inputSchema":{"type":"object",)"
                  R"("properties":{"path":{"type":"string"}},"required":["path"]},)"
                  R"("annotations":{"readOnlyHint":true},"title":"Read file"})")),
              "e20690550b39755a266807d09cf1894678a5eefe3aa2778f40396791b97206be");
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"echo"})")),
              "f7817751a90d6baf078dd0e2d98b278faa025d83ccee00eb9b60100ad65bdcb9");
    // All five keys, nulls kept: hashes {"annotations":null,"description":"d","inputSchema":{},"name":"t","outputSchema":null}
    EXPECT_EQ(MCPWire::pinHash(parsed(
                  R"({"outputSchema":null,"name":"t","inputSchema":{},"description":"d","annotations":null})")),
              "d8de9b5870d92be54d7aa7d3e668ae365cded52f1e8f7585920c4b207a057fbe");
    // The slash is escaped in the hashed text {"name":"a\/b"}.
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"a/b"})")),
              "a9577129a62329140e17a6cf0ba1e7cef00444410dbf349a6db0f85773fcc954");
}

TEST(MCPWirePinHashTests, PinFollowsOnlyThePinnedValues) {
    const std::string base = MCPWire::pinHash(parsed(R"({"name":"t","description":"d","inputSchema":{"a":1,"b":2}})"));
    ASSERT_EQ(base.size(), 64u);
    EXPECT_EQ(base.find_first_not_of("0123456789abcdef"), std::string::npos);

    EXPECT_EQ(MCPWire::pinHash(parsed("{ \"inputSchema\" : {\"b\":2, \"a\":1},\n\"description\":\"\\u0064\",\"name\":\"t\"}")),
              base);
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"t","description":"d","inputSchema":{"a":1,"b":2},"title":"T","x-ext":[1]})")),
              base);
    EXPECT_NE(MCPWire::pinHash(parsed(R"({"name":"t","description":"D","inputSchema":{"a":1,"b":2}})")), base);
    EXPECT_NE(MCPWire::pinHash(parsed(R"({"name":"t","description":"d","inputSchema":{"a":1,"b":3}})")), base);
    EXPECT_NE(MCPWire::pinHash(parsed(R"({"name":"t","description":"d","inputSchema":{"a":1,"b":2},"outputSchema":null})")),
              base);
}

TEST(MCPWirePinHashTests, OnlyUnwritableDefinitionsGiveTheEmptyPin) {
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"t","inputSchema":{"default":NaN}})")), "");

    // A schema of any depth is pinned.
    EXPECT_EQ(MCPWire::pinHash(parsed(R"({"name":"t","inputSchema":)" + std::string(200000, '[') +
                                      std::string(200000, ']') + "}")).size(),
              64u);
}

} // namespace
} // namespace sentrova
