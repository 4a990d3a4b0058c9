#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/Utf8.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

std::string canonical(const std::string& text, JsonWriteOptions options = {}) {
    auto value = parseJson(text);
    return value ? writeJson(*value, options).value_or("<unwritable>") : "<refused>";
}

Json element(const std::string& text) { return parseJson("[" + text + "]").value_or(Json::array({Json()})).arrayValue()[0]; }

TEST(JsonTests, EveryCaseTableLineReadsAndWritesAsListedAndNumbersKeepTheirKind) {
    for (const auto& row : test::caseRows("json.txt")) {
        ASSERT_EQ(row.size(), 2u) << row[0];
        EXPECT_EQ(canonical(row[0]), row[1]) << row[0];
        // What was written reads back to the same text: canonical texts are fixed points.
        EXPECT_EQ(row[1][0] == '<' ? row[1] : canonical(row[1]), row[1]);
    }
    // Numbers keep their kind and the client's spelling.
    for (const auto& [text, value] : {std::pair{"9223372036854775807", Json::integer(INT64_MAX)}, {"-9223372036854775808", Json::integer(INT64_MIN)},
                                      {"9223372036854775808", Json::unsignedInteger(9223372036854775808ULL)}, {"-Infinity", Json::real(-INFINITY)},
                                      {"1e100", Json::real(1e100)}}) {
        EXPECT_EQ(element(text), value) << text;
    }
    EXPECT_EQ(element("NaN").type(), Json::Type::real);
    EXPECT_TRUE(std::signbit(element("-0.0").realValue()) && std::signbit(element("-1e-400").realValue()));
    // Booleans stay booleans but read as numbers; only number literals are echoed verbatim.
    const Json values = *parseJson("[true,false,2,\"1\"]");
    const JsonArrayView e = values.arrayValue();
    EXPECT_TRUE(e[0].isBool() && e[0].isNumber() && !e[0].isNumberLiteral() && e[2].isNumberLiteral());
    EXPECT_TRUE(e[0].numberValue() == 1.0 && e[1].numberValue() == 0.0 && !e[3].numberValue());
    EXPECT_TRUE(Json::boolean(true) != Json::integer(1) && Json::integer(1) != Json::real(1.0));
    EXPECT_EQ(writeJson(*parseJson("[100000000000000000001,-0,1.50,1E2,-1e400]"), {.verbatimNumbers = true}),
              "[100000000000000000001,0,1.50,1E2,-1e400]");
    EXPECT_EQ(canonical(R"({"a/b":"\u001F"})", {.escapeSlash = true}), R"({"a\/b":"\u001f"})");
    EXPECT_EQ(*parseJson(R"({"id":1,"x":0,"id":3})")->find("id"), Json::integer(3)); // the last one counts
    // The encoder at the edges of the surrogates and of Unicode; the bracket scan stays in its text.
    for (const auto& [codePoint, bytes] : {std::pair<std::uint32_t, std::string>{0xD7FF, "\xED\x9F\xBF"}, {0xD800, "\xEF\xBF\xBD"},
                                           {0xDFFF, "\xEF\xBF\xBD"}, {0xE000, "\xEE\x80\x80"}, {0x10FFFF, "\xF4\x8F\xBF\xBF"},
                                           {0x110000, "\xEF\xBF\xBD"}}) {
        std::string out;
        appendUtf8(out, codePoint);
        EXPECT_EQ(out, bytes) << codePoint;
    }
    EXPECT_EQ(jsonContainerEnd(std::string_view("[[]]").substr(0, 3), 0), std::string_view::npos);
    EXPECT_EQ(jsonContainerEnd(R"(x{"]":[1]} )", 1), 10u);
}

TEST(JsonTests, DeepAndHugeLinesCostNoRecursionNorMemoryPerBracketAndEachLineIsReadOnItsOwn) {
    const std::string brackets(20'000'000, '[');
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_FALSE(parseJson(brackets));
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(static_cast<std::size_t>(after.ru_maxrss - before.ru_maxrss) * 1024, brackets.size());

    constexpr std::size_t depth = 1'000'000;
    const std::string arrays = std::string(depth, '[') + std::string(depth, ']');
    auto parsed = parseJson(arrays);
    ASSERT_TRUE(parsed);
    Json copy = *parsed;
    EXPECT_EQ(copy, *parsed);
    EXPECT_FALSE(*parseJson(std::string(depth - 1, '[') + std::string(depth - 1, ']')) == *parsed);
    EXPECT_EQ(writeJson(*parsed), arrays);
    EXPECT_FALSE(parseJson(std::string(depth, '[') + std::string(depth - 1, ']')));
    // Objects and arrays alternating, strings short and long at every level, copied and freed.
    std::string mixed;
    for (std::size_t i = 0; i < 200'000; ++i) mixed += i % 2 == 0 ? R"({"s":"ab","next":)" : R"([")" + std::string(40, 'x') + "\",";
    mixed += "null";
    for (std::size_t i = 200'000; i-- > 0;) mixed += i % 2 == 0 ? "}" : "]";
    auto tree = parseJson(mixed);
    Json kept = tree.value_or(Json());
    tree.reset();
    EXPECT_EQ(kept.find("next")->arrayValue()[0].stringValue(), std::string(40, 'x'));
    kept = Json(kept.find("next")->arrayValue()[1]); // from inside the own tree
    EXPECT_EQ(kept.find("s")->stringValue(), "ab");
    // A value taken out of a line stands alone; nothing of a refused, huge or concurrent line
    // may show up in another line's value.
    EXPECT_EQ(writeJson(kept.standalone()), writeJson(kept));
    EXPECT_FALSE(parseJson(R"({"a\u0041":["a long string that needs storage",{"b":"c","k\n":[1,2)"));
    EXPECT_EQ(canonical(R"({"x":[1,{"y":"z"}]})"), R"({"x":[1,{"y":"z"}]})");
    std::string huge = "[\"v0\"";
    for (int i = 1; i < 50'000; ++i) huge += ",\"v" + std::to_string(i) + "\"";
    EXPECT_EQ(parseJson(huge + "]")->arrayValue()[49'999], Json::string("v49999"));
    std::atomic<int> mismatches{0};
    const auto reader = [&](int t) {
        for (int i = 0; i < 2'000; ++i) {
            const std::string line = R"({"id":)" + std::to_string(t * 100'000 + i) + R"(,"p":{"name":"thread-with-a-long-name"}})";
            mismatches += writeJson(parseJson(line).value_or(Json())) != line ? 1 : 0;
        }
    };
    std::thread a(reader, 1), b(reader, 2), c(reader, 3);
    reader(0);
    a.join(), b.join(), c.join();
    EXPECT_EQ(mismatches.load(), 0);
}

} // namespace
} // namespace sentrova
