#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/Utf8.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string_view>
#include <unordered_set>

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

// Ids and progress tokens go back to the client as it wrote them.
constexpr JsonWriteOptions kEchoed{.verbatimNumbers = true};

// Whether two member names of the object at `at` fold to one. The names' hashes are compared
// first, which costs 8 bytes a member; only names whose hashes meet are compared as names.
bool objectHasFoldedTwins(const JsonDocument& doc, std::size_t at) {
    const std::size_t end = doc.next(at);
    const auto foldedHash = [&doc](std::size_t key) { return std::hash<std::string>{}(foldedName(doc.text(key))); };
    std::vector<std::size_t> hashes;
    hashes.reserve(doc.count(at));
    for (std::size_t key = at + 1; key < end; key = doc.next(key + 1)) hashes.push_back(foldedHash(key));
    std::sort(hashes.begin(), hashes.end());
    std::vector<std::size_t> met;
    for (std::size_t i = 1; i < hashes.size(); ++i) {
        if (hashes[i] == hashes[i - 1] && (met.empty() || met.back() != hashes[i])) met.push_back(hashes[i]);
    }
    if (met.empty()) return false;
    std::unordered_set<std::string> seen;
    for (std::size_t key = at + 1; key < end; key = doc.next(key + 1)) {
        if (std::binary_search(met.begin(), met.end(), foldedHash(key)) && !seen.insert(foldedName(doc.text(key))).second) {
            return true;
        }
    }
    return false;
}

// Whether some object at any depth of value has two member names that Go's folding takes for one
// (a Go server acts on the last of them, the gateway would see both).
bool hasFoldedTwins(const Json& value) {
    const JsonDocument* doc = value.document();
    if (doc == nullptr) return false;
    // One pass over the value's words: each object's members are looked at from the object.
    const std::size_t end = doc->next(value.position());
    for (std::size_t at = value.position(); at < end;) {
        const JsonTag tag = JsonDocument::tag(doc->tape[at]);
        if (tag == JsonTag::object && doc->count(at) > 1 && objectHasFoldedTwins(*doc, at)) return true;
        at = tag == JsonTag::array || tag == JsonTag::object ? at + 1 : doc->next(at);
    }
    return false;
}

bool isJavaScriptSpace(std::string_view text, std::size_t at, std::size_t& length) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    length = 1;
    if (c == ' ' || (c >= 0x09 && c <= 0x0D)) return true;
    for (std::string_view space : {"\xC2\xA0", "\xEF\xBB\xBF", "\xE1\x9A\x80", "\xE2\x80\xA8", "\xE2\x80\xA9",
                                   "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"}) {
        if (text.substr(at, space.size()) == space) {
            length = space.size();
            return true;
        }
    }
    // U+2000 to U+200A
    if (text.substr(at, 2) == "\xE2\x80" && at + 2 < text.size() && static_cast<unsigned char>(text[at + 2]) <= 0x8A) {
        length = 3;
        return true;
    }
    return false;
}

// JavaScript's Number(string), where it gives a number (NaN gives nullopt).
std::optional<double> javaScriptNumber(std::string_view text) {
    std::size_t length = 0;
    while (!text.empty() && isJavaScriptSpace(text, 0, length)) text.remove_prefix(length);
    while (!text.empty()) {
        std::size_t at = text.size() - 1;
        while (at > 0 && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) --at;
        if (!isJavaScriptSpace(text, at, length) || at + length != text.size()) break;
        text.remove_suffix(length);
    }
    if (text.empty()) return 0.0;
    if (text.size() > 2 && text[0] == '0' && std::string_view("xXoObB").find(text[1]) != std::string_view::npos) {
        const int base = (text[1] == 'x' || text[1] == 'X') ? 16 : (text[1] == 'o' || text[1] == 'O') ? 8 : 2;
        double value = 0;
        for (char c : text.substr(2)) {
            const char lower = static_cast<char>(c | 0x20);
            const int digit = c >= '0' && c <= '9' ? c - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 99;
            if (digit >= base) return std::nullopt;
            value = value * base + digit;
        }
        return value;
    }
    const bool negative = text[0] == '-';
    if (text[0] == '+' || text[0] == '-') text.remove_prefix(1);
    if (text == "Infinity") return negative ? -HUGE_VAL : HUGE_VAL;
    // StrUnsignedDecimalLiteral: digits, an optional fraction, an optional exponent.
    std::size_t at = 0;
    std::size_t digits = 0;
    auto skipDigits = [&] {
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at, ++digits;
    };
    skipDigits();
    if (at < text.size() && text[at] == '.') {
        ++at;
        skipDigits();
    }
    if (digits == 0) return std::nullopt;
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
        const std::size_t before = digits;
        skipDigits();
        if (digits == before) return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;
    double magnitude = 0;
    const auto [last, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    if (error == std::errc::result_out_of_range) {
        // Beyond the double range: an infinity, unless every digit before the exponent is a zero
        // or the exponent is negative (then it is a zero).
        const std::size_t exponent = text.find_first_of("eE");
        const bool tiny = exponent != std::string_view::npos && exponent + 1 < text.size() && text[exponent + 1] == '-';
        magnitude = tiny ? 0.0 : HUGE_VAL;
    } else if (error != std::errc() || last != text.data() + text.size()) {
        return std::nullopt;
    }
    return negative ? -magnitude : magnitude;
}

bool isStringEqual(const std::optional<Json>& value, std::string_view expected) {
    return value && value->isString() && value->stringValue() == expected;
}

} // namespace

std::optional<std::string> idKey(const Json& id) {
    switch (id.type()) {
    case Json::Type::string: return "s:" + std::string(id.stringValue());
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

std::vector<std::string> answerKeys(const Json& id) {
    std::vector<std::string> keys;
    if (std::optional<std::string> key = idKey(id)) keys.push_back(std::move(*key));
    if (id.isString()) {
        if (std::optional<double> number = javaScriptNumber(id.stringValue())) keys.push_back("n:" + realKeyText(*number));
    }
    return keys;
}

ToolCallReading readToolCall(const Json& message) {
    ToolCallReading reading;
    const std::optional<Json> id = message.find("id");
    if (id && !writeJson(*id, kEchoed)) {
        reading.outcome = ToolCallReading::Outcome::drop;
        return reading;
    }
    const std::optional<Json> params = message.find("params");
    if (!params || !params->isObject()) return reading;
    const std::optional<Json> meta = params->find("_meta");
    const std::optional<Json> token = meta && meta->isObject() ? meta->find("progressToken") : std::nullopt;
    if (token && token->isNumberLiteral()) {
        if (!writeJson(*token, kEchoed)) return reading;
        reading.progressToken = token->standalone();
    } else if (token && token->isString()) {
        reading.progressToken = token->standalone();
    }
    const std::optional<Json> arguments = params->find("arguments");
    if (!arguments) {
        reading.argumentsText = "{}";
    } else {
        if (!(arguments->isObject() || arguments->isArray()) || hasFoldedTwins(*arguments)) return reading;
        std::optional<std::string> text = writeJson(*arguments);
        if (!text) return reading; // NaN, an infinity or a number beyond the double range
        reading.argumentsText = std::move(*text);
    }
    reading.outcome = ToolCallReading::Outcome::ask;
    return reading;
}

std::optional<bool> readBoolean(const std::optional<Json>& value) {
    if (!value) return std::nullopt;
    if (value->isBool()) return value->boolValue();
    std::optional<double> number = value->numberValue();
    if (!number) return std::nullopt;
    if (*number == 1.0) return true;
    if (*number == 0.0) return false;
    return std::nullopt;
}

BridgeRisk riskFloor(const std::optional<Json>& annotations) {
    if (!annotations || !annotations->isObject()) return BridgeRisk::caution;
    const bool readOnly = readBoolean(annotations->find("readOnlyHint")).value_or(false);
    const bool destructive = readBoolean(annotations->find("destructiveHint")).value_or(true);
    // One step up for a tool that may write, one more for one that may destroy.
    const int level = (readOnly ? 0 : 1) + (destructive ? 1 : 0);
    return static_cast<BridgeRisk>(level);
}

std::optional<ImageBlock> firstImageBlock(const Json& result) {
    const std::optional<Json> content = result.find("content");
    if (!content || !content->isArray()) return std::nullopt;
    // A content array with anything but objects in it is not read at all.
    for (const Json& block : content->arrayValue()) {
        if (!block.isObject()) return std::nullopt;
    }
    for (const Json& block : content->arrayValue()) {
        if (!isStringEqual(block.find("type"), "image")) continue;
        const std::optional<Json> data = block.find("data");
        if (!data || !data->isString()) continue;
        const std::optional<Json> mimeType = block.find("mimeType");
        return ImageBlock{std::string(data->stringValue()),
                          std::string(mimeType && mimeType->isString() ? mimeType->stringValue() : kDefaultImageMimeType)};
    }
    return std::nullopt;
}

std::string denyResult(const Json& id, const std::string& message) {
    // The id is written on its own rather than copied into a message object: it is the
    // client's value and may nest deeply.
    std::optional<std::string> idText = writeJson(id, kEchoed);
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

std::string invalidRequest(const Json& id) {
    std::optional<std::string> idText = writeJson(id, kEchoed);
    std::string out = R"({"error":{"code":-32600,"message":"Invalid Request"},"id":)";
    out += idText ? *idText : "null";
    out += R"(,"jsonrpc":"2.0"})";
    return out;
}

std::string progressNotification(const Json& progressToken, std::int64_t progress, const std::string& message) {
    std::optional<std::string> tokenText = writeJson(progressToken, kEchoed);
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
        const std::optional<Json> value = tool.find(key);
        if (!value) continue;
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
