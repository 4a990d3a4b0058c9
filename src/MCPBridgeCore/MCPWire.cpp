#include "MCPBridgeCore/MCPWire.hpp"

#include <openssl/evp.h>

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

namespace sentrova::MCPWire {

namespace {

constexpr std::string_view kDenyFallback = R"({"jsonrpc":"2.0","result":{"isError":true}})";
constexpr std::string_view kProgressFallback = R"({"jsonrpc":"2.0","method":"notifications/progress"})";
constexpr std::string_view kDefaultImageMimeType = "image/png";

// The definition keys that enter a pin, already in the writer's key order, so the pinned
// object can be written member by member without building (and deep-copying) it first.
constexpr std::array<std::string_view, 5> kPinnedKeysInWriteOrder = {
    "annotations", "description", "inputSchema", "name", "outputSchema"};

std::string shortestText(double value, std::chars_format format) {
    std::array<char, 512> buffer{};
    auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, format);
    if (error != std::errc()) return "nan";
    return std::string(buffer.data(), end);
}

// Decimal text of a parsed real. Integral values read like the integer they equal, so that
// 1.0 and 1 share a key; non-finite values get fixed words, which no integer text can match.
std::string realKeyText(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    if (value != std::trunc(value)) return shortestText(value, std::chars_format::general);
    constexpr double kTwoToThe63 = 9223372036854775808.0;
    if (value >= -kTwoToThe63 && value < kTwoToThe63) return std::to_string(static_cast<std::int64_t>(value));
    return shortestText(value, std::chars_format::fixed);
}

std::string lowerHex(const unsigned char* bytes, std::size_t count) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

std::string sha256Hex(std::string_view data) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) return {};
    return lowerHex(digest.data(), length);
}

bool isStringEqual(const Json* value, std::string_view expected) {
    return value != nullptr && value->isString() && value->stringValue() == expected;
}

} // namespace

std::optional<std::string> idKey(const Json& id) {
    switch (id.type()) {
    case Json::Type::string: return "s:" + id.stringValue();
    case Json::Type::boolean: return std::string(id.boolValue() ? "n:1" : "n:0");
    case Json::Type::integer: return "n:" + std::to_string(id.intValue());
    case Json::Type::unsignedInteger: return "n:" + std::to_string(id.uintValue());
    case Json::Type::real: return "n:" + realKeyText(id.realValue());
    case Json::Type::null:
    case Json::Type::array:
    case Json::Type::object: return std::nullopt;
    }
    return std::nullopt;
}

std::optional<bool> readBoolean(const Json* value) {
    if (value == nullptr) return std::nullopt;
    if (value->isBool()) return value->boolValue();
    std::optional<double> number = value->numberValue();
    if (!number) return std::nullopt;
    if (*number == 1.0) return true;
    if (*number == 0.0) return false;
    return std::nullopt;
}

BridgeRisk riskFloor(const Json* annotations) {
    if (annotations == nullptr || !annotations->isObject()) return BridgeRisk::caution;
    const bool readOnly = readBoolean(annotations->find("readOnlyHint")).value_or(false);
    const bool destructive = readBoolean(annotations->find("destructiveHint")).value_or(true);
    // One step up for a tool that may write, one more for one that may destroy.
    const int level = (readOnly ? 0 : 1) + (destructive ? 1 : 0);
    return static_cast<BridgeRisk>(level);
}

std::optional<ImageBlock> firstImageBlock(const Json& result) {
    const Json* content = result.find("content");
    if (content == nullptr || !content->isArray()) return std::nullopt;
    // A content array with anything but objects in it is not read at all.
    for (const Json& block : content->arrayValue()) {
        if (!block.isObject()) return std::nullopt;
    }
    for (const Json& block : content->arrayValue()) {
        if (!isStringEqual(block.find("type"), "image")) continue;
        const Json* data = block.find("data");
        if (data == nullptr || !data->isString()) continue;
        const Json* mimeType = block.find("mimeType");
        return ImageBlock{data->stringValue(), (mimeType != nullptr && mimeType->isString())
                                                   ? mimeType->stringValue()
                                                   : std::string(kDefaultImageMimeType)};
    }
    return std::nullopt;
}

std::string denyResult(const Json& id, const std::string& message) {
    // The id is written on its own rather than copied into a message object: it is the
    // client's value and may nest deeply.
    std::optional<std::string> idText = writeJson(id);
    if (!idText) return std::string(kDenyFallback);
    std::string out;
    out.reserve(idText->size() + message.size() + 96);
    out += R"({"id":)";
    out += *idText;
    out += R"(,"jsonrpc":"2.0","result":{"content":[{"text":)";
    appendJsonString(out, message);
    out += R"(,"type":"text"}],"isError":true}})";
    return out;
}

std::string progressNotification(const Json& progressToken, std::int64_t progress, const std::string& message) {
    std::optional<std::string> tokenText = writeJson(progressToken);
    if (!tokenText) return std::string(kProgressFallback);
    std::string out;
    out.reserve(tokenText->size() + message.size() + 112);
    out += R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"message":)";
    appendJsonString(out, message);
    out += R"(,"progress":)";
    out += std::to_string(progress);
    out += R"(,"progressToken":)";
    out += *tokenText;
    out += "}}";
    return out;
}

std::string pinHash(const Json& tool) {
    // The pin input is the only JSON the bridge writes with "/" escaped.
    constexpr JsonWriteOptions pinOptions{.escapeSlash = true};
    std::string text = "{";
    bool first = true;
    for (std::string_view key : kPinnedKeysInWriteOrder) {
        const Json* value = tool.find(key);
        if (value == nullptr) continue;
        std::optional<std::string> valueText = writeJson(*value, pinOptions);
        if (!valueText) return {};
        if (!first) text += ',';
        first = false;
        appendJsonString(text, key, pinOptions);
        text += ':';
        text += *valueText;
    }
    text += '}';
    return sha256Hex(text);
}

} // namespace sentrova::MCPWire
