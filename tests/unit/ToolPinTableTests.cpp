#include <gtest/gtest.h>

#include <atomic>
#include <ostream>
#include <string>
#include <thread>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/ToolPinTable.hpp"

namespace sentrova {

static void PrintTo(const ToolPinTable::ToolPin& pin, std::ostream* out) {
    *out << "{" << pin.hash << ", " << rawValue(pin.risk) << "}";
}

namespace {

Json::Array toolsList(std::string_view text) {
    std::optional<Json> value = parseJson(text);
    EXPECT_TRUE(value && value->isArray()) << text;
    return value && value->isArray() ? value->arrayValue() : Json::Array{};
}

std::string pinOf(std::string_view definition) {
    std::optional<Json> value = parseJson(definition);
    return value ? MCPWire::pinHash(*value) : std::string("unparsed");
}

using PinStatus = ToolPinTable::PinStatus;
using ToolPin = ToolPinTable::ToolPin;

TEST(ToolPinTableTests, CaptureSkipsMalformedEntriesAndLaterDuplicateWins) {
    ToolPinTable table;
    table.capture(toolsList(R"([{},{"description":"no name"},{"name":3},{"name":null},)"
                            R"({"name":"dup","annotations":{"readOnlyHint":true,"destructiveHint":false}},)"
                            R"({"name":"good","annotations":"readOnly"},)"
                            R"({"name":"dup","description":"second"}])"));

    // Annotations that are not an object still enter the pin, but give no risk hints.
    EXPECT_EQ(table.pin("good"), (ToolPin{pinOf(R"({"name":"good","annotations":"readOnly"})"), BridgeRisk::caution}));
    EXPECT_EQ(table.pin("dup"), (ToolPin{pinOf(R"({"name":"dup","description":"second"})"), BridgeRisk::caution}));
    EXPECT_EQ(table.pin("3"), std::nullopt);
    EXPECT_EQ(table.pin(""), std::nullopt);
}

TEST(ToolPinTableTests, CaptureMergesSuccessiveAnswers) {
    ToolPinTable table;
    table.capture(toolsList(R"([{"name":"a","description":"v1"},{"name":"b"}])"));
    const std::optional<ToolPin> b = table.pin("b");
    table.capture(toolsList(R"([{"name":"a","description":"v2","annotations":{"readOnlyHint":1}}])"));

    EXPECT_EQ(table.pin("a"), (ToolPin{pinOf(R"({"name":"a","description":"v2","annotations":{"readOnlyHint":1}})"),
                                       BridgeRisk::caution}));
    ASSERT_TRUE(b.has_value());
    EXPECT_EQ(table.pin("b"), b);
}

TEST(ToolPinTableTests, ApprovalLifecycle) {
    ToolPinTable table;
    // Never approved: no change, whatever the pin.
    EXPECT_EQ(table.pinStatus("t", "P"), PinStatus{});
    EXPECT_EQ(table.pinStatus("t", ""), PinStatus{});

    table.approve("t", "P");
    EXPECT_EQ(table.pinStatus("t", "P"), PinStatus{});
    EXPECT_EQ(table.pinStatus("t", "Q"), (PinStatus{true, "P"}));
    // Asking does not record anything: the same question keeps the same answer.
    EXPECT_EQ(table.pinStatus("t", "Q"), (PinStatus{true, "P"}));

    table.approve("t", "Q");
    EXPECT_EQ(table.pinStatus("t", "Q"), PinStatus{});
    EXPECT_EQ(table.pinStatus("t", "P"), (PinStatus{true, "Q"}));

    // A call allowed before any list named the tool approves the empty pin.
    table.approve("early", "");
    EXPECT_EQ(table.pinStatus("early", ""), PinStatus{});
    EXPECT_EQ(table.pinStatus("early", "R"), (PinStatus{true, ""}));

    // Capture leaves approvals alone, and approvals do not create baseline entries.
    table.capture(toolsList(R"([{"name":"t","description":"new"}])"));
    EXPECT_EQ(table.pinStatus("t", "Q"), PinStatus{});
    EXPECT_EQ(table.pin("early"), std::nullopt);
}

TEST(ToolPinTableTests, StaleFlagIsClearedByAnyCaptureAndKeepsThePins) {
    ToolPinTable table;
    EXPECT_FALSE(table.isStale());
    table.capture(toolsList(R"([{"name":"a"}])"));
    const std::optional<ToolPin> a = table.pin("a");
    for (const Json::Array& answer : {Json::Array{}, toolsList(R"([{},{"name":1}])")}) {
        table.markStale();
        EXPECT_TRUE(table.isStale());
        table.capture(answer);
        EXPECT_FALSE(table.isStale());
        EXPECT_EQ(table.pin("a"), a);
    }
}

// Captures on one thread against lookups, status checks and approvals on another: every
// entry read must be one captured pair (hash and risk of the same definition). Run under
// TSan as well.
TEST(ToolPinTableTests, ConcurrentCaptureAndLookupSeeWholeAnswers) {
    std::string listA, listB;
    for (int i = 0; i < 50; ++i) {
        const std::string name = std::string(i ? "," : "") + R"({"name":"tool)" + std::to_string(i) + "\"";
        listA += name + R"(,"description":"A"})";
        listB += name + R"(,"description":"B","annotations":{"readOnlyHint":true,"destructiveHint":false}})";
    }
    const Json::Array answerA = toolsList("[" + listA + "]");
    const Json::Array answerB = toolsList("[" + listB + "]");
    const std::string firstA = pinOf(R"({"name":"tool0","description":"A"})");
    const std::string lastA = pinOf(R"({"name":"tool49","description":"A"})");

    ToolPinTable table;
    table.capture(answerA);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int round = 0; round < 200; ++round) {
            table.capture(round % 2 ? answerA : answerB);
            if (round % 7 == 0) table.markStale();
        }
        done = true;
    });

    int mixed = 0;
    int lookups = 0;
    while (!done || lookups < 100) {
        const std::optional<ToolPin> first = table.pin("tool0");
        const std::optional<ToolPin> last = table.pin("tool49");
        ASSERT_TRUE(first && last);
        if ((first->hash == firstA) != (first->risk == BridgeRisk::caution)) ++mixed;
        if ((last->hash == lastA) != (last->risk == BridgeRisk::caution)) ++mixed;
        table.approve("tool0", first->hash);
        (void)table.pinStatus("tool0", last->hash);
        ++lookups;
    }
    writer.join();
    EXPECT_EQ(mixed, 0);
    EXPECT_EQ(table.pin("tool0")->hash, firstA);
}

} // namespace
} // namespace sentrova
