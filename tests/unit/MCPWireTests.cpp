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

TEST(MCPWireIdKeyTests, StringsAndNumbersNeverShareAKey) {
    EXPECT_EQ(MCPWire::idKey(Json::string("7")), "s:7");
    EXPECT_EQ(MCPWire::idKey(Json::string("")), "s:");
    EXPECT_EQ(MCPWire::idKey(parsedValue("7")), "n:7");
    EXPECT_EQ(MCPWire::idKey(parsedValue("1.0")), "n:1");
    EXPECT_EQ(MCPWire::idKey(parsedValue("-0.0")), "n:0");
    EXPECT_EQ(MCPWire::idKey(parsedValue("1e2")), "n:100");
    EXPECT_EQ(MCPWire::idKey(parsedValue("true")), "n:1");
    EXPECT_EQ(MCPWire::idKey(parsedValue("18446744073709551615")), "n:18446744073709551615");
    EXPECT_EQ(MCPWire::idKey(parsedValue("-9223372036854775808")), "n:-9223372036854775808");
    EXPECT_EQ(MCPWire::idKey(Json::real(1e19)), "n:10000000000000000000");
    EXPECT_EQ(MCPWire::idKey(parsedValue("0.5")), "n:0.5");
    EXPECT_EQ(MCPWire::idKey(parsedValue("1.25")), MCPWire::idKey(parsedValue("125e-2")));
    EXPECT_EQ(MCPWire::idKey(Json::real(std::numeric_limits<double>::infinity())), "n:inf");
    EXPECT_EQ(MCPWire::idKey(Json::real(-std::numeric_limits<double>::infinity())), "n:-inf");
    EXPECT_EQ(MCPWire::idKey(Json::real(std::nan(""))), "n:nan");
    EXPECT_EQ(MCPWire::idKey(Json::null()), std::nullopt);
    EXPECT_EQ(MCPWire::idKey(parsedValue("[1]")), std::nullopt);
    EXPECT_EQ(MCPWire::idKey(parsedValue(R"({"id":1})")), std::nullopt);
    // An answer's id also counts as the number JavaScript's Number() reads in a string.
    for (const auto& [id, keys] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"1", {"n:1"}}, {R"("1")", {"s:1", "n:1"}}, {R"(" 1.0 ")", {"s: 1.0 ", "n:1"}}, {R"("0x10")", {"s:0x10", "n:16"}},
             {R"("")", {"s:", "n:0"}}, {R"("1e999")", {"s:1e999", "n:inf"}}, {R"(".5")", {"s:.5", "n:0.5"}},
             {R"("1x")", {"s:1x"}}, {R"("0x")", {"s:0x"}}, {R"("e5")", {"s:e5"}}, {"null", {}}}) {
        EXPECT_EQ(MCPWire::answerKeys(parsedValue(id)), keys) << id;
    }
}

TEST(MCPWireRiskFloorTests, HintsCombineIntoRisk) {
    const auto risk = [](const std::string& annotations) {
        Json value = parsed(annotations);
        return MCPWire::riskFloor(&value);
    };
    EXPECT_EQ(MCPWire::riskFloor(nullptr), BridgeRisk::caution);
    EXPECT_EQ(risk("{}"), BridgeRisk::critical);
    EXPECT_EQ(risk(R"({"readOnlyHint":true})"), BridgeRisk::caution);
    EXPECT_EQ(risk(R"({"readOnlyHint":true,"destructiveHint":false})"), BridgeRisk::safe);
    EXPECT_EQ(risk(R"({"readOnlyHint":1,"destructiveHint":0.0})"), BridgeRisk::safe);
    EXPECT_EQ(risk(R"({"readOnlyHint":2})"), BridgeRisk::critical);
    EXPECT_EQ(risk(R"({"readOnlyHint":"true"})"), BridgeRisk::critical);
    EXPECT_EQ(risk(R"({"destructiveHint":false})"), BridgeRisk::caution);
    EXPECT_EQ(risk(R"({"readOnlyHint":true,"destructiveHint":null})"), BridgeRisk::caution);
    EXPECT_EQ(risk(R"({"readOnlyHint":false,"destructiveHint":"false"})"), BridgeRisk::critical);
    EXPECT_EQ(risk(R"({"title":"x","openWorldHint":false})"), BridgeRisk::critical);
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
    const std::vector<std::tuple<std::string, Outcome, std::string>> rows = {
        {R"("id":1,"params":{"name":"t"})", Outcome::ask, "{}"},
        {R"("id":1,"params":{"name":"t","arguments":{"n":100000000000000000001,"b":[1.50,-0]}})", Outcome::ask,
         R"({"b":[1.5,0],"n":100000000000000000001})"},
        {R"("id":1,"params":{"name":"t","arguments":[]})", Outcome::ask, "[]"},
        {R"("id":1,"params":{"name":"t","arguments":null})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":"{}"})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"a":[{"x":NaN}]}})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"a":1e400}})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"a":-Infinity}})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"path":"/safe","Path":"/etc/shadow"}})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":[{"é":1,"É":2}]})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"k":1,"K":2}})", Outcome::refuse, ""},
        {R"("id":1,"params":{"name":"t","arguments":{"i":1,"İ":2,"ı":3}})", Outcome::ask, R"({"i":1,"İ":2,"ı":3})"},
        {R"("id":1,"params":{"name":"t","_meta":{"progressToken":NaN}})", Outcome::refuse, ""},
        {R"("id":NaN,"params":{"name":"t"})", Outcome::drop, ""},
        {R"("id":[Infinity],"params":{"name":"t"})", Outcome::drop, ""},
    };
    for (const auto& [members, outcome, arguments] : rows) {
        const Json message = parsed("{" + members + "}");
        const MCPWire::ToolCallReading reading = MCPWire::readToolCall(message);
        EXPECT_EQ(reading.outcome, outcome) << members;
        if (outcome == Outcome::ask) {
            EXPECT_EQ(reading.argumentsText, arguments) << members;
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
