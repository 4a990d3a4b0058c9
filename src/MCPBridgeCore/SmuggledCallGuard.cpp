#include "MCPBridgeCore/SmuggledCallGuard.hpp"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "MCPBridgeCore/AmbiguousCallGuard.hpp"

namespace sentrova::SmuggledCallGuard {

namespace {

bool isJsonSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A tool call by any reading: some spelling of "method" names "tools/call".
bool callsTool(const Json& message) noexcept {
    if (!message.isObject()) return false;
    for (const JsonMember& member : message.objectValue()) {
        if (member.value.isString() && member.value.stringValue() == "tools/call" &&
            AmbiguousCallGuard::foldsTo(member.key, "method")) {
            return true;
        }
    }
    return false;
}

const Json* callID(const Json& message) noexcept {
    const Json* exact = nullptr;
    const Json* variant = nullptr;
    for (const JsonMember& member : message.objectValue()) {
        if (member.key == "id") {
            exact = &member.value;
        } else if (AmbiguousCallGuard::foldsTo(member.key, "id")) {
            variant = &member.value;
        }
    }
    return exact != nullptr ? exact : variant;
}

class Findings {
public:
    explicit Findings(Verdict& verdict) : verdict_(verdict) {}

    // A message read out of the line; a batch counts by its elements.
    void add(const Json& value) {
        if (value.isArray()) {
            for (const Json& element : value.arrayValue()) addMessage(element);
        } else {
            addMessage(value);
        }
    }

private:
    void addMessage(const Json& message) {
        if (!callsTool(message)) return;
        verdict_.smuggled = true;
        const Json* id = callID(message);
        if (id == nullptr) return;
        // Several readings may find the same call: answer it once.
        const std::optional<std::string> text = writeJson(*id);
        for (const std::string& seen : answered_) {
            if (text && seen == *text) return;
        }
        if (text) answered_.push_back(*text);
        verdict_.ids.push_back(*id);
    }

    Verdict& verdict_;
    std::vector<std::string> answered_;
};

// The end of the object or array that starts at from (just past its closing bracket), found by
// bracket depth outside strings; the reader then decides whether it is JSON at all.
std::size_t containerEnd(std::string_view text, std::size_t from) noexcept {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t at = from; at < text.size(); ++at) {
        const char c = text[at];
        if (inString) {
            if (c == '\\') {
                ++at;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            if (--depth == 0) return at + 1;
        }
    }
    return std::string_view::npos;
}

// A stream decoder's reading: JSON texts one after the other, whitespace between them.
void readAsStream(std::string_view text, Findings& findings) {
    std::size_t at = 0;
    if (text.substr(0, 3) == "\xEF\xBB\xBF") at = 3;
    for (;;) {
        while (at < text.size() && isJsonSpace(text[at])) ++at;
        if (at >= text.size() || (text[at] != '{' && text[at] != '[')) return;
        const std::size_t end = containerEnd(text, at);
        if (end == std::string_view::npos) return;
        const std::optional<Json> value = parseJson(text.substr(at, end - at));
        if (!value) return;
        findings.add(*value);
        at = end;
    }
}

// A universal-newline reading: a CR ends a line as well.
void readAsCRSeparatedLines(std::string_view text, Findings& findings) {
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\r', start);
        if (end == std::string_view::npos) end = text.size();
        if (end > start) {
            if (const std::optional<Json> value = parseJson(text.substr(start, end - start))) findings.add(*value);
        }
        start = end + 1;
    }
}

void appendUTF8(std::string& out, std::uint32_t codePoint) {
    if (codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) codePoint = 0xFFFD;
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

// The line's bytes read as UTF-16 or UTF-32 (unitSize 2 or 4) from offset on, as UTF-8;
// unpaired surrogates become U+FFFD and a trailing partial unit is ignored.
std::string decodeWide(std::string_view bytes, std::size_t unitSize, bool bigEndian, std::size_t offset) {
    auto unitAt = [&](std::size_t at) {
        std::uint32_t unit = 0;
        for (std::size_t i = 0; i < unitSize; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[at + (bigEndian ? i : unitSize - 1 - i)]);
            unit = (unit << 8) | byte;
        }
        return unit;
    };
    std::string out;
    out.reserve(bytes.size() / unitSize);
    std::size_t at = offset;
    while (at + unitSize <= bytes.size()) {
        std::uint32_t unit = unitAt(at);
        at += unitSize;
        if (unitSize == 2 && unit >= 0xD800 && unit <= 0xDBFF && at + 2 <= bytes.size()) {
            const std::uint32_t low = unitAt(at);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                at += 2;
            }
        }
        if (unit == 0xFEFF && out.empty()) continue; // a byte order mark
        appendUTF8(out, unit);
    }
    return out;
}

// Python's json.loads decides on the encoding from the first four bytes alone: a byte order
// mark, or a NUL among them. Nothing else can be UTF-16 or UTF-32 JSON to it.
bool looksWide(std::string_view line) noexcept {
    const std::string_view head = line.substr(0, 4);
    return head.find('\0') != std::string_view::npos || head.substr(0, 2) == "\xFF\xFE" ||
           head.substr(0, 2) == "\xFE\xFF";
}

} // namespace

Verdict inspect(std::string_view line, bool readsAsOneText) {
    Verdict verdict;
    // A CR as the very last byte ends the line for every reader alike.
    const std::string_view body = line.empty() || line.back() != '\r' ? line : line.substr(0, line.size() - 1);
    const bool hasInnerCR = std::memchr(body.data(), '\r', body.size()) != nullptr;
    if (readsAsOneText && !hasInnerCR) return verdict;

    Findings findings(verdict);
    if (hasInnerCR) readAsCRSeparatedLines(line, findings);
    if (!readsAsOneText) {
        readAsStream(line, findings);
        if (looksWide(line)) {
            for (const std::size_t unitSize : {std::size_t{2}, std::size_t{4}}) {
                for (const bool bigEndian : {false, true}) {
                    for (std::size_t offset = 0; offset < unitSize; ++offset) {
                        const std::string text = decodeWide(line, unitSize, bigEndian, offset);
                        readAsStream(text, findings);
                        readAsCRSeparatedLines(text, findings);
                    }
                }
            }
        }
    }
    return verdict;
}

} // namespace sentrova::SmuggledCallGuard
