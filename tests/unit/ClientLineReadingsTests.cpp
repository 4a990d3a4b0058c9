#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "MCPBridgeCore/ClientLineReadings.hpp"

using sentrova::Json;
using sentrova::ClientLineReadings::read;

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

// The answers to a refused line, as "call:<id>" or "other:<id>"; {"relay"} for a relayed line.
std::vector<std::string> answers(const std::string& line) {
    const auto answer = read(line);
    if (answer.message) return {"relay"};
    std::vector<std::string> out;
    for (const auto& request : answer.refused) {
        out.push_back((request.toolCall ? "call:" : "other:") +
                      sentrova::writeJson(request.id, {.verbatimNumbers = true}).value_or("?"));
    }
    return out;
}

using Rows = std::vector<std::pair<std::string, std::vector<std::string>>>;

} // namespace

TEST(ClientLineReadingsTests, EachLineIsRelayedOrEveryRequestInItIsAnswered) {
    const Rows rows = {
        {kCall, {"relay"}},
        {kCall + "\r", {"relay"}}, // a trailing CR ends the line for everyone
        {"[" + kPing + "," + R"({"jsonrpc":"2.0","method":"notifications/initialized"}])", {"relay"}},
        {R"({"a":"x\r{\"method\":\"tools/call\",\"id\":1}"})", {"relay"}}, // an escaped CR hides nothing
        {R"({"jsonrpc":"2.0","id":9,"Method":"tools/list","params":{"name":"a","NAME":"b"}})", {"relay"}},
        // Not one JSON text: never relayed.
        {"not json at all", {}},
        {"42", {}},
        {kPing + "\r" + kPing, {"other:1"}},
        {kPing + "\r" + kCall, {"other:1", "call:7"}},
        {R"({"x":)" "\r" + kCall + "\r}", {"call:7"}}, // one object for the bridge, a call after a CR
        {"garbage\r" R"({"method":"tools/call","params":{"name":"rm"}})", {}}, // nobody to answer
        {kPing + " " + kCall, {"other:1", "call:7"}},  // found by several readings, answered once
        {"[" + kCall + "]" + kPing, {"call:7", "other:1"}},
        {R"({"Method":"tools/call","ID":3} x)", {"call:3"}},
        {utf16le(kCall), {"call:7"}},
        {std::string(1, '\0') + utf16le(kCall), {"call:7"}},
        {"\xFF\xFE" + utf16le(kCall), {"call:7"}},
        // Batches holding a call under any spelling, at any place.
        {"[" + kPing + "," + kCall + "]", {"other:1", "call:7"}},
        {"[[" + kCall + "]," + kPing + "]", {"relay"}}, // a nested batch is no message to anyone
        {R"([{"jsonrpc":"2.0","id":"b","METHOD":"tools/call","params":{"name":"rm"}}])", {"call:\"b\""}},
        // Lenient readers: from the first "{", unquoted names and words.
        {"x" + kCall, {"call:7"}},
        {R"({jsonrpc:"2.0",id:8,method:"tools/call",params:{name:"rm"}})", {"call:8"}},
        {R"(  {jsonrpc:2.0,id:1e400,method:tools/call,params:{name:rm}} trailing)", {"call:1e400"}},
        // A call split over lines reads as nothing in each line.
        {R"({"jsonrpc":"2.0","id":7,)", {}},
        {R"("method":"tools/call","params":{"name":"rm"}})", {}},
        // Ambiguous calls: the members that decide routing repeated or in another case.
        {R"({"jsonrpc":"2.0","id":1,"method":"tools/list","Method":"tools/call"})", {"call:1"}},
        {R"({"jsonrpc":"2.0","id":3,"method":"tools/call","method":"tools/list"})", {"call:3"}},
        {R"({"jsonrpc":"2.0","id":4,"method":"tools/call","param)" "\xC5\xBF" R"(":{"name":"x"},"params":{}})", {"call:4"}},
        {R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"a","NAME":"b"}})", {"call:5"}},
        {R"({"jsonrpc":"2.0","id":7,"Id":8,"method":"tools/call","params":{"name":"x"}})", {"call:7"}},
        {R"({"jsonrpc":"2.0","Id":9,"method":"tools/call","params":{"name":"x"}})", {"call:9"}},
        {R"({"jsonrpc":"2.0","Method":"tools/call","params":{"name":"x"}})", {}},
        {R"({"jsonrpc":"2.0","id":"\u0130D","method":"tools/call","\u0131d":2,"params":{"name":"x"}})", {"relay"}},
    };
    for (const auto& [line, expected] : rows) EXPECT_EQ(answers(line), expected) << line;
}

TEST(ClientLineReadingsTests, ManyRequestsInOneRefusedLineTakeLinearTime) {
    std::string line = "[";
    for (int i = 0; i < 160000; ++i) line += R"({"id":)" + std::to_string(i) + R"(,"method":"tools/call"},)";
    line.back() = ']';
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(read(line).refused.size(), 160000u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}
