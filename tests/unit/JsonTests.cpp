#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

using sentrova::Json;
using sentrova::JsonMember;
using sentrova::JsonWriteOptions;
using sentrova::jsonKeyLess;
using sentrova::parseJson;
using sentrova::writeJson;

namespace {

// The string held by the one-element array that text parses to.
std::string readString(const std::string& text) {
    auto value = parseJson("[\"" + text + "\"]");
    if (!value || value->arrayValue().size() != 1 || !value->arrayValue()[0].isString()) return "<refused>";
    return value->arrayValue()[0].stringValue();
}

// The single element of the array that "[text]" parses to.
Json readElement(const std::string& text) {
    auto value = parseJson("[" + text + "]");
    EXPECT_TRUE(value) << text;
    if (!value || value->arrayValue().size() != 1) return Json::string("<refused>");
    return value->arrayValue()[0];
}

std::string write(const Json& value, bool escapeSlash = false) {
    auto text = writeJson(value, JsonWriteOptions{escapeSlash});
    return text ? *text : "<failed>";
}

std::string canonical(const std::string& text, bool escapeSlash = false) {
    auto value = parseJson(text);
    return value ? write(*value, escapeSlash) : "<refused>";
}

Json nestedArrays(std::size_t depth) {
    Json value = Json::array();
    for (std::size_t i = 1; i < depth; ++i) {
        Json::Array wrapper;
        wrapper.push_back(std::move(value)); // an initializer list would copy the whole tree
        value = Json::array(std::move(wrapper));
    }
    return value;
}

const std::string kReplacement = "\xEF\xBF\xBD";

} // namespace

TEST(JsonReaderTests, RefusesWhatNoServerReadsAsAMessage) {
    for (const char* text : {"", "   ", "1", "\"a\"", "true", "null", "NaN", "[1] x", "[1],", "{} {}", "[1,]",
                             "{\"a\":1,}", "{a:1}", "{'a':1}", "[1]//c", "/*c*/[1]", "[1 2]", "{\"a\" 1}",
                             "{\"a\":1 \"b\":2}", "[\"abc", "[1", "{\"a\":", "[01]", "[1.]", "[.5]", "[+1]",
                             "[-]", "[1e]", "[1e+]", "[-NaN]", "[nan]", "[inf]", "[-Inf]", "[tru]", "[nul]",
                             "[\"\\x\"]", "[\"\\u12\"]", "[\"\\u12g4\"]", "[\"\\U0041\"]", "[]\f", "[]\v", "\f[]",
                             "\xEF\xBB\xBF", "\xEF\xBB\xBF\xEF\xBB\xBF[]", " \xEF\xBB\xBF[]", "[]\xEF\xBB\xBF"}) {
        EXPECT_FALSE(parseJson(text)) << text;
    }
    // Raw control characters inside strings, including one that an ill-formed sequence swallows.
    for (std::string text : {"[\"a\tb\"]", "[\"\x01\"]", "[\"\x1f\"]", "[\"\n\"]", "[\"\xE2\x01\"]"}) {
        EXPECT_FALSE(parseJson(text)) << text;
    }
    EXPECT_FALSE(parseJson(std::string("[\"\0\"]", 5)));
    EXPECT_FALSE(parseJson(std::string("[]\0", 3)));
}

TEST(JsonReaderTests, AcceptsContainersWithWhitespaceAndLeadingBom) {
    EXPECT_TRUE(parseJson("{}"));
    EXPECT_TRUE(parseJson("[]"));
    EXPECT_TRUE(parseJson(" \t\r\n[ 1 , { \"a\" : [ ] } ] \t\r\n"));
    auto withBom = parseJson("\xEF\xBB\xBF{\"a\":1}");
    ASSERT_TRUE(withBom);
    EXPECT_EQ(withBom->find("a")->intValue(), 1);
    EXPECT_TRUE(parseJson("\xEF\xBB\xBF [\"\x7f\"]")); // DEL is no control character here
}

TEST(JsonReaderTests, DecodesEscapesAndSurrogatePairs) {
    EXPECT_EQ(readString(R"(\"\\\/\b\f\n\r\t)"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(readString(R"(\u0041\u00e9\u20AC)"), "A\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(readString(R"(\ud83d\ude00)"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(readString(R"(\u0000)"), std::string(1, '\0'));
    // Lone surrogates become U+FFFD; a high surrogate pairs only with a directly following low one.
    EXPECT_EQ(readString(R"(\ud83d)"), kReplacement);
    EXPECT_EQ(readString(R"(\ude00x)"), kReplacement + "x");
    EXPECT_EQ(readString(R"(\ud83dx\ude00)"), kReplacement + "x" + kReplacement);
    EXPECT_EQ(readString(R"(\ud83d\u0041)"), kReplacement + "A");
    EXPECT_EQ(readString(R"(\ud83d\ud83d\ude00)"), kReplacement + "\xF0\x9F\x98\x80");
}

TEST(JsonReaderTests, ReplacesEachMaximalIllFormedSubsequenceOfUtf8) {
    const std::string r = kReplacement;
    EXPECT_EQ(readString("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(readString("\xFF"), r);
    EXPECT_EQ(readString("\xC0\xAF"), r + r);                      // C0 never starts a sequence
    EXPECT_EQ(readString("\xE0\x80\xAF"), r + r + r);              // overlong: E0 needs A0..BF next
    EXPECT_EQ(readString("\xED\xA0\x80"), r + r + r);              // encoded surrogate
    EXPECT_EQ(readString("\xF4\x90\x80\x80"), r + r + r + r);      // above U+10FFFF
    EXPECT_EQ(readString("\xE2\x82"), r);                          // truncated by the closing quote
    EXPECT_EQ(readString("\xF0\x9F\x98" "a"), r + "a");            // one U+FFFD for the whole prefix
    // The classic example: 61 F1 80 80 E1 80 C2 62 80 63 80 BF 64.
    EXPECT_EQ(readString("a\xF1\x80\x80\xE1\x80\xC2" "b\x80" "c\x80\xBF" "d"), "a" + r + r + r + "b" + r + "c" + r + r + "d");
    // Keys are strings too, and a long plain run around the bad byte is kept intact.
    auto value = parseJson("{\"k\xFF\":{\"x\\n\":[{\"\\u0041\":1}],\"y\":2},\"\\t\":3}");
    ASSERT_TRUE(value);
    ASSERT_TRUE(value->find("k" + r));
    EXPECT_TRUE(value->find("k" + r)->find("x\n"));
    EXPECT_EQ(value->find("k" + r)->find("x\n")->arrayValue()[0].objectValue()[0].key, "A");
    EXPECT_TRUE(value->find("\t"));
    const std::string run(100, 'x');
    EXPECT_EQ(readString(run + "\x80" + run + "\\n" + run), run + r + run + "\n" + run);
}

TEST(JsonReaderTests, ReadsNumbersOfAnySize) {
    EXPECT_EQ(readElement("0"), Json::integer(0));
    EXPECT_EQ(readElement("-0"), Json::integer(0));
    EXPECT_EQ(readElement("-5"), Json::integer(-5));
    EXPECT_EQ(readElement("9223372036854775807"), Json::integer(INT64_MAX));
    EXPECT_EQ(readElement("-9223372036854775808"), Json::integer(INT64_MIN));
    EXPECT_EQ(readElement("9223372036854775808"), Json::unsignedInteger(9223372036854775808ULL));
    EXPECT_EQ(readElement("18446744073709551615"), Json::unsignedInteger(UINT64_MAX));
    EXPECT_EQ(readElement("18446744073709551616"), Json::real(18446744073709551616.0));
    EXPECT_EQ(readElement("-9223372036854775809"), Json::real(-9223372036854775808.0));
    EXPECT_EQ(readElement("1" + std::string(100, '0')), Json::real(1e100));
    EXPECT_EQ(readElement("1.0"), Json::real(1.0));
    EXPECT_EQ(readElement("0.1"), Json::real(0.1));
    EXPECT_EQ(readElement("0.1000000000000000055511151231257827"), Json::real(0.1));
    EXPECT_EQ(readElement("2.5E-3"), Json::real(0.0025));
    EXPECT_EQ(readElement("1e+2"), Json::real(100.0));
    EXPECT_EQ(readElement("5e-324"), Json::real(5e-324));
    EXPECT_TRUE(std::signbit(readElement("-0.0").realValue()));
    EXPECT_EQ(readElement("1e400"), Json::real(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(readElement("-1e400"), Json::real(-std::numeric_limits<double>::infinity()));
    EXPECT_EQ(readElement("123456789e99999999999999999999"), Json::real(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(readElement("1e-400"), Json::real(0.0));
    EXPECT_TRUE(std::signbit(readElement("-1e-400").realValue()));
    EXPECT_EQ(readElement("0.000001e-999"), Json::real(0.0));
    EXPECT_EQ(readElement("Infinity"), Json::real(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(readElement("-Infinity"), Json::real(-std::numeric_limits<double>::infinity()));
    EXPECT_TRUE(std::isnan(readElement("NaN").realValue()));
    EXPECT_EQ(readElement("NaN").type(), Json::Type::real);
}

TEST(JsonReaderTests, ALineOfOpeningBracketsCostsNoMemoryPerBracket) {
    const std::string line(20'000'000, '[');
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_FALSE(parseJson(line));
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(static_cast<std::size_t>(after.ru_maxrss - before.ru_maxrss) * 1024, line.size());
}

TEST(JsonReaderTests, NestsAMillionLevelsWithoutRecursion) {
    constexpr std::size_t depth = 1'000'000;
    const std::string arrays = std::string(depth, '[') + std::string(depth, ']');
    auto parsed = parseJson(arrays);
    ASSERT_TRUE(parsed);
    Json copy = *parsed;
    EXPECT_EQ(copy, *parsed);
    copy = nestedArrays(depth - 1);
    EXPECT_FALSE(copy == *parsed);
    EXPECT_EQ(writeJson(*parsed), arrays);
    parsed.reset();

    std::string objects;
    for (std::size_t i = 0; i < depth; ++i) objects += "{\"a\":";
    objects += "1" + std::string(depth, '}');
    auto nested = parseJson(objects);
    ASSERT_TRUE(nested);
    EXPECT_TRUE(nested->find("a")->isObject());
    EXPECT_FALSE(parseJson(std::string(depth, '[') + std::string(depth - 1, ']')));
}

TEST(JsonModelTests, MixedTreesWithStringsAtEveryLevelAreCopiedComparedAndFreed) {
    // Objects and arrays alternate, each level holding a short and a long string, both below
    // and far beyond the depth that destruction handles by recursion.
    const std::string longText(40, 'x');
    for (std::size_t depth : {3u, 40u, 200'000u}) {
        std::string text;
        for (std::size_t i = 0; i < depth; ++i) {
            text += i % 2 == 0 ? R"({"s":"ab","l":")" + longText + R"(","next":)" : R"([")" + longText + R"(","cd",)";
        }
        text += "null";
        for (std::size_t i = depth; i-- > 0;) text += i % 2 == 0 ? "}" : "]";
        auto parsed = parseJson(text);
        ASSERT_TRUE(parsed) << depth;
        Json copy = *parsed;
        EXPECT_EQ(copy, *parsed);
        EXPECT_EQ(copy.find("l")->stringValue(), longText);
        const Json* second = copy.find("next");
        ASSERT_TRUE(second != nullptr && second->isArray());
        EXPECT_EQ(second->arrayValue()[1], Json::string("cd"));
        copy.mutableObject()[0].value.mutableString() = "changed";
        EXPECT_FALSE(copy == *parsed);
        parsed.reset();
        EXPECT_EQ(copy.find("s")->stringValue(), "changed");
    }
}

TEST(JsonModelTests, StringsAndContainersSurviveMovesAndTypeChanges) {
    const std::string longText(100, 'q');
    Json text = Json::string(longText);
    Json moved = std::move(text);
    EXPECT_TRUE(text.isNull()); // NOLINT(bugprone-use-after-move): a moved-from value is null
    EXPECT_EQ(moved.stringValue(), longText);
    Json array = Json::array();
    array.mutableArray().push_back(std::move(moved));
    array.mutableArray().push_back(Json::string("short"));
    array.mutableArray().push_back(Json::object({{"k", Json::string(longText)}}));
    Json copy = array;
    copy = std::move(copy.mutableArray()[2]); // from inside the own tree
    EXPECT_EQ(write(copy), R"({"k":")" + longText + R"("})");
    copy.mutableString() = "now a string";
    EXPECT_EQ(copy, Json::string("now a string"));
    copy.mutableArray().push_back(Json::integer(1));
    EXPECT_EQ(write(copy), "[1]");
    EXPECT_EQ(write(array), R"([")" + longText + R"(","short",{"k":")" + longText + R"("}])");
    EXPECT_EQ(Json::integer(5).stringValue(), "");
    EXPECT_TRUE(Json::string("x").objectValue().empty());
}

// The reader keeps its working storage from one line to the next: nothing of a refused,
// huge or concurrent line may show up in another line's value.
TEST(JsonReaderTests, EachLineIsReadOnItsOwn) {
    EXPECT_FALSE(parseJson(R"({"a\u0041":["a long string that needs storage",{"b":"c","k\n":[1,2)"));
    EXPECT_EQ(canonical(R"({"x":[1,{"y":"z"}]})"), R"({"x":[1,{"y":"z"}]})");

    std::string huge = "[";
    for (int i = 0; i < 50'000; ++i) huge += (i != 0 ? ",\"v" : "\"v") + std::to_string(i) + "\"";
    huge += "]";
    auto hugeValue = parseJson(huge);
    ASSERT_TRUE(hugeValue);
    EXPECT_EQ(hugeValue->arrayValue().size(), 50'000u);
    EXPECT_EQ(hugeValue->arrayValue()[49'999], Json::string("v49999"));
    EXPECT_EQ(canonical(R"({"\u00e9":1,"b":[true]})"), "{\"b\":[true],\"\xC3\xA9\":1}");

    std::vector<std::thread> readers;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([t, &mismatches] {
            for (int i = 0; i < 2'000; ++i) {
                const std::string line = R"({"id":)" + std::to_string(t * 100'000 + i) + R"(,"p":{"name":"thread-)" +
                                         std::to_string(t) + R"(-with-a-long-name"}})";
                auto value = parseJson(line);
                if (!value || writeJson(*value) != line) ++mismatches[static_cast<std::size_t>(t)];
            }
        });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(JsonModelTests, KeepsDuplicateKeysAndFindsTheLast) {
    auto value = parseJson(R"({"id":1,"x":0,"id":"two","id":3})");
    ASSERT_TRUE(value);
    const Json::Object& members = value->objectValue();
    ASSERT_EQ(members.size(), 4u);
    EXPECT_EQ(members[0].key, "id");
    EXPECT_EQ(members[2].value, Json::string("two"));
    EXPECT_EQ(*value->find("id"), Json::integer(3));
    EXPECT_EQ(value->find("missing"), nullptr);
    EXPECT_EQ(Json::array().find("id"), nullptr);
    // All duplicates are written, sorted stably among themselves.
    EXPECT_EQ(write(*value), R"({"id":1,"id":"two","id":3,"x":0})");
}

TEST(JsonModelTests, BooleansStayBooleansButReadAsNumbers) {
    auto value = parseJson("[true,false,2,\"1\",null]");
    ASSERT_TRUE(value);
    const Json::Array& e = value->arrayValue();
    EXPECT_TRUE(e[0].isBool() && e[0].isNumber() && !e[0].isNumberLiteral());
    EXPECT_EQ(e[0].numberValue(), 1.0);
    EXPECT_EQ(e[1].numberValue(), 0.0);
    EXPECT_TRUE(e[2].isNumberLiteral());
    EXPECT_EQ(e[3].numberValue(), std::nullopt);
    EXPECT_EQ(e[4].numberValue(), std::nullopt);
    EXPECT_NE(Json::boolean(true), Json::integer(1));
    EXPECT_NE(Json::integer(1), Json::real(1.0));
    EXPECT_EQ(write(*value), "[true,false,2,\"1\",null]");
}

TEST(JsonModelTests, AssignmentFromInsideTheOwnTreeIsSafe) {
    Json value = *parseJson(R"([[["deep"]],1])");
    value = value.arrayValue()[0];
    EXPECT_EQ(write(value), R"([["deep"]])");
    value = std::move(value.mutableArray()[0]);
    EXPECT_EQ(write(value), R"(["deep"])");
    Json other = Json::integer(4);
    other.mutableObject().push_back({"k", Json::string("v")});
    EXPECT_EQ(write(other), R"({"k":"v"})");
}

TEST(JsonKeyOrderTests, FoldsCaseComparesDigitRunsByValueAndBreaksTiesByBytes) {
    EXPECT_TRUE(jsonKeyLess("maximum", "maxLength"));
    EXPECT_FALSE(jsonKeyLess("maxLength", "maximum"));
    EXPECT_TRUE(jsonKeyLess("item9", "item10"));
    EXPECT_TRUE(jsonKeyLess("A", "b"));
    EXPECT_TRUE(jsonKeyLess("a", "B"));
    EXPECT_TRUE(jsonKeyLess("page", "pages"));
    EXPECT_TRUE(jsonKeyLess("v2b", "v10a"));
    EXPECT_TRUE(jsonKeyLess("a_b", "ab")); // letters fold to lower case, so '_' sorts before them
    // Equal under folding or numeric value: plain byte order decides.
    EXPECT_TRUE(jsonKeyLess("A", "a"));
    EXPECT_TRUE(jsonKeyLess("item007", "item7"));
    EXPECT_TRUE(jsonKeyLess("item007b", "item7c"));
    EXPECT_FALSE(jsonKeyLess("same", "same"));
    const char* pinned[] = {"annotations", "description", "inputSchema", "name", "outputSchema"};
    for (std::size_t i = 0; i + 1 < std::size(pinned); ++i) {
        EXPECT_TRUE(jsonKeyLess(pinned[i], pinned[i + 1])) << pinned[i];
        EXPECT_FALSE(jsonKeyLess(pinned[i + 1], pinned[i])) << pinned[i];
    }
}

TEST(JsonWriterTests, SortsKeysAtEveryDepth) {
    EXPECT_EQ(canonical(R"({"maxLength":1,"maximum":2,"item10":3,"item9":4,"b":5,"A":6})"),
              R"({"A":6,"b":5,"item9":4,"item10":3,"maximum":2,"maxLength":1})");
    EXPECT_EQ(canonical(R"({"z":[{"b":1,"a":{"d":2,"c":3}}],"y":{}})"), R"({"y":{},"z":[{"a":{"c":3,"d":2},"b":1}]})");
    // Many keys take the other sorting path; it must agree.
    Json wide = Json::object();
    for (int i = 40; i > 0; --i) wide.mutableObject().push_back({"k" + std::to_string(i), Json::integer(i)});
    const std::string text = write(wide);
    EXPECT_EQ(text.substr(0, 22), R"({"k1":1,"k2":2,"k3":3,)");
    EXPECT_EQ(text.substr(text.size() - 9), R"("k40":40})");
}

TEST(JsonWriterTests, EscapesOnlyWhatMustBeEscaped) {
    EXPECT_EQ(write(Json::string("a/b\"c\\d")), R"("a/b\"c\\d")");
    EXPECT_EQ(write(Json::string("a/b"), true), R"("a\/b")");
    EXPECT_EQ(write(Json::string("\b\f\n\r\t")), R"("\b\f\n\r\t")");
    EXPECT_EQ(write(Json::string(std::string("\0\x01\x1f\x7f", 4))), "\"\\u0000\\u0001\\u001f\x7f\"");
    EXPECT_EQ(write(Json::string("\xC3\xA9\xE2\x80\xA6\xF0\x9F\x98\x80")), "\"\xC3\xA9\xE2\x80\xA6\xF0\x9F\x98\x80\"");
    const std::string longText = std::string(37, 'x') + "/" + std::string(20, 'y') + "\x1f";
    EXPECT_EQ(write(Json::string(longText), true), "\"" + std::string(37, 'x') + "\\/" + std::string(20, 'y') + "\\u001f\"");
    // Keys follow the same rules.
    EXPECT_EQ(canonical(R"({"a/b":"\u001F"})", true), R"({"a\/b":"\u001f"})");
}

TEST(JsonWriterTests, WritesNumbersInTheirShortestForm) {
    EXPECT_EQ(write(Json::real(1.0)), "1");
    EXPECT_EQ(write(Json::real(-0.0)), "0");
    EXPECT_EQ(write(Json::real(-5.0)), "-5");
    EXPECT_EQ(write(Json::real(0.1)), "0.1");
    EXPECT_EQ(write(Json::real(-2.5)), "-2.5");
    EXPECT_EQ(write(Json::real(1e300)), "1e+300");
    EXPECT_EQ(write(Json::real(9007199254740991.0)), "9007199254740991");
    EXPECT_EQ(write(Json::real(1.7976931348623157e308)), "1.7976931348623157e+308");
    EXPECT_EQ(write(Json::integer(-5)), "-5");
    EXPECT_EQ(write(Json::integer(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(write(Json::unsignedInteger(UINT64_MAX)), "18446744073709551615");
    EXPECT_EQ(write(Json::boolean(false)), "false");
    EXPECT_EQ(write(Json::null()), "null");
    EXPECT_EQ(*parseJson("[" + write(Json::real(0.1 + 0.2)) + "]"), Json::array({Json::real(0.1 + 0.2)}));
}

TEST(JsonWriterTests, FailsOnNonFiniteNumbersOnlyAtAnyDepth) {
    EXPECT_FALSE(writeJson(Json::real(std::numeric_limits<double>::infinity())));
    EXPECT_FALSE(writeJson(*parseJson(R"({"a":[1,{"b":NaN}]})")));
    EXPECT_FALSE(writeJson(*parseJson("[-Infinity]")));
    EXPECT_FALSE(writeJson(*parseJson("[1e400]")));
    const std::string deep = std::string(200000, '[') + R"({"b":1,"a":[]})" + std::string(200000, ']');
    EXPECT_EQ(writeJson(*parseJson(deep)), std::string(200000, '[') + R"({"a":[],"b":1})" + std::string(200000, ']'));
    // Integers keep every digit; ids and tokens are echoed in the client's own spelling.
    const Json numbers = *parseJson("[100000000000000000001,-0,1.50,1E2,-1e400]");
    EXPECT_EQ(writeJson(Json::array(Json::Array(numbers.arrayValue().begin(), numbers.arrayValue().end() - 1))),
              "[100000000000000000001,0,1.5,100]");
    EXPECT_EQ(writeJson(numbers, {.verbatimNumbers = true}), "[100000000000000000001,0,1.50,1E2,-1e400]");
}

TEST(JsonWriterTests, ReadingWhatWasWrittenGivesTheSameValue) {
    for (const char* text : {
             R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"read_file","arguments":{"path":"/tmp/a b","n":[1,-2,0.5,1e-7,12345678901234567890,true,false,null]},"_meta":{"progressToken":"t"}}})",
             R"([{"b":[],"a":{}},"\u00e9\ud83d\ude00\n\"\\\/",-9223372036854775808,2.2250738585072014e-308,[[[["x"]]]]])",
             R"({"dup":1,"dup":2,"Dup":3,"d10":4,"d9":5})",
         }) {
        auto value = parseJson(text);
        ASSERT_TRUE(value) << text;
        for (bool escapeSlash : {false, true}) {
            auto written = writeJson(*value, JsonWriteOptions{escapeSlash});
            ASSERT_TRUE(written) << text;
            auto reread = parseJson(*written);
            ASSERT_TRUE(reread) << *written;
            // Members come back sorted; from then on the value survives unchanged.
            EXPECT_EQ(writeJson(*reread), writeJson(*value));
            EXPECT_EQ(*parseJson(write(*reread, escapeSlash)), *reread);
        }
    }
    // A canonical text is a fixed point, byte for byte.
    const std::string definition =
        R"({"annotations":{"readOnlyHint":true},"description":"Read a file under \/tmp","inputSchema":{"properties":{"path":{"type":"string"}},"required":["path"],"type":"object"},"name":"read_file"})";
    EXPECT_EQ(canonical(definition, true), definition);
    EXPECT_EQ(canonical(R"({"name":"read_file","description":"Read a file under /tmp","inputSchema":{"type":"object","properties":{"path":{"type":"string"}},"required":["path"]},"annotations":{"readOnlyHint":true}})", true),
              definition);
    EXPECT_EQ(definition.size(), 188u);
}
