#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "MCPBridgeCore/Utf8.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_set>

namespace sentrova::ClientLineReadings {

namespace {

bool isJsonSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isToolCallValue(const Json& value) noexcept { return value.isString() && value.stringValue() == "tools/call"; }

// name is target, or another spelling of it under Go's folding (targetFolded is foldedName(target)).
enum class Spelling { other, exact, variant };
Spelling spellingOf(std::string_view name, std::string_view target, const std::string& targetFolded) {
    if (name == target) return Spelling::exact;
    // Every variant of these ASCII names is at most three bytes per letter long.
    if (name.size() < target.size() || name.size() > 3 * target.size()) return Spelling::other;
    // An ASCII name, the usual case, folds to the target only letter for letter.
    bool ascii = true;
    for (const char c : name) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
        if (name.size() != target.size()) return Spelling::other;
        for (std::size_t i = 0; i < name.size(); ++i) {
            const char c = name[i];
            if (c != target[i] && !(c >= 'A' && c <= 'Z' && c + ('a' - 'A') == target[i])) return Spelling::other;
        }
        return Spelling::variant;
    }
    return foldedName(name) == targetFolded ? Spelling::variant : Spelling::other;
}

struct Name {
    std::string_view plain;
    std::string folded;
};
const std::array<Name, 6>& names() {
    static const std::array<Name, 6> kNames = {Name{"method", foldedName("method")}, Name{"id", foldedName("id")},
                                               Name{"params", foldedName("params")}, Name{"name", foldedName("name")},
                                               Name{"arguments", foldedName("arguments")},
                                               Name{"_meta", foldedName("_meta")}};
    return kNames;
}
enum NameIndex { kMethod, kId, kParams, kName, kArguments, kMeta };

// Whether one of names()[first..last] is repeated or spelled in another case among members.
bool anyUnclear(const JsonObjectView& members, int first, int last) {
    for (int i = first; i <= last; ++i) {
        int exact = 0;
        for (const JsonMemberView member : members) {
            switch (spellingOf(member.key, names()[i].plain, names()[i].folded)) {
            case Spelling::exact:
                if (++exact > 1) return true;
                break;
            case Spelling::variant: return true;
            case Spelling::other: break;
            }
        }
    }
    return false;
}

// A tool call that readers could take in different ways: the members that decide routing or the
// called tool are repeated or spelled in another case.
bool ambiguousCall(const Json& message) {
    const JsonObjectView members = message.objectValue();
    if (anyUnclear(members, kMethod, kParams)) return true;
    for (const JsonMemberView member : members) {
        if (member.value.isObject() && spellingOf(member.key, "params", names()[kParams].folded) != Spelling::other &&
            anyUnclear(member.value.objectValue(), kName, kMeta)) {
            return true;
        }
    }
    return false;
}

// The requests that the readings find, each id once.
class Findings {
public:
    explicit Findings(std::vector<FoundRequest>& found) : found_(found) {}

    bool sawToolCall() const noexcept { return sawToolCall_; }

    // A value read out of the line; a batch counts by its elements.
    void add(const Json& value) {
        if (!value.isArray()) return addMessage(value);
        for (const Json& element : value.arrayValue()) addMessage(element);
    }

private:
    void addMessage(const Json& message) {
        if (!message.isObject()) return;
        bool hasMethod = false;
        std::optional<Json> exactId;
        std::optional<Json> variantId;
        bool toolCall = false;
        for (const JsonMemberView member : message.objectValue()) {
            if (member.value.isString() && spellingOf(member.key, "method", names()[kMethod].folded) != Spelling::other) {
                hasMethod = true;
                toolCall = toolCall || isToolCallValue(member.value);
            } else {
                const Spelling spelling = spellingOf(member.key, "id", names()[kId].folded);
                if (spelling == Spelling::exact) exactId = member.value;
                if (spelling == Spelling::variant) variantId = member.value;
            }
        }
        sawToolCall_ = sawToolCall_ || toolCall;
        const std::optional<Json>& id = exactId ? exactId : variantId;
        if (!hasMethod || !id) return; // not a request, or nobody to answer
        // Several readings may find the same request: answer it once. An id that cannot be
        // written back (NaN) cannot be answered.
        std::optional<std::string> text = writeJson(*id, JsonWriteOptions{.verbatimNumbers = true});
        if (!text || !answered_.insert(std::move(*text)).second) return;
        found_.push_back({id->standalone(), toolCall});
    }

    std::vector<FoundRequest>& found_;
    std::unordered_set<std::string> answered_;
    bool sawToolCall_ = false;
};

// A stream decoder's reading: JSON texts one after the other, whitespace between them.
void readAsStream(std::string_view text, Findings& findings) {
    std::size_t at = 0;
    if (text.substr(0, 3) == "\xEF\xBB\xBF") at = 3;
    for (;;) {
        while (at < text.size() && isJsonSpace(text[at])) ++at;
        if (at >= text.size() || (text[at] != '{' && text[at] != '[')) return;
        const std::size_t end = jsonContainerEnd(text, at);
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

// A lenient reading: from the first "{", names and values may go without quotes. The text is
// rewritten with quotes around bare words (numbers and literals stay bare) and read strictly.
void readLeniently(std::string_view line, Findings& findings) {
    const std::size_t start = line.find('{');
    if (start == std::string_view::npos) return;
    auto isBare = [](char c) { return !isJsonSpace(c) && std::strchr("{}[],:\"", c) == nullptr; };
    std::string text;
    text.reserve(line.size() - start + 16);
    std::size_t depth = 0;
    std::size_t at = start;
    while (at < line.size()) {
        const char c = line[at];
        if (c == '"') {
            std::size_t close = at + 1;
            while (close < line.size() && line[close] != '"') close += line[close] == '\\' ? 2 : 1;
            if (close >= line.size()) return;
            text.append(line.substr(at, close + 1 - at));
            at = close + 1;
        } else if (isBare(c)) {
            std::size_t end = at;
            while (end < line.size() && isBare(line[end])) ++end;
            const std::string_view word = line.substr(at, end - at);
            const bool keepsBare = word == "true" || word == "false" || word == "null" || c == '-' ||
                                   (c >= '0' && c <= '9');
            if (keepsBare) text.append(word);
            else appendJsonString(text, word);
            at = end;
        } else {
            text.push_back(c);
            ++at;
            if (c == '{' || c == '[') ++depth;
            if ((c == '}' || c == ']') && --depth == 0) break;
        }
    }
    if (const std::optional<Json> value = parseJson(text)) findings.add(*value);
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
        appendUtf8(out, unit);
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

bool batchCallsTool(const Json& batch) {
    for (const Json& element : batch.arrayValue()) {
        if (callsTool(element)) return true;
    }
    return false;
}

} // namespace

bool callsTool(const Json& message) {
    if (!message.isObject()) return false;
    for (const JsonMemberView member : message.objectValue()) {
        // The value first: almost no member says "tools/call".
        if (isToolCallValue(member.value) && spellingOf(member.key, "method", names()[kMethod].folded) != Spelling::other) {
            return true;
        }
    }
    return false;
}

Answer read(std::string_view line) {
    Answer answer;
    std::optional<Json> parsed = parseJson(line);
    // A CR as the very last byte ends the line for every reader alike.
    const std::string_view body = line.empty() || line.back() != '\r' ? line : line.substr(0, line.size() - 1);
    const bool hasInnerCR = std::memchr(body.data(), '\r', body.size()) != nullptr;

    std::vector<FoundRequest> found;
    Findings findings(found);
    if (parsed) {
        bool refused = parsed->isObject() ? callsTool(*parsed) && ambiguousCall(*parsed) : batchCallsTool(*parsed);
        if (!refused && hasInnerCR) {
            // One text for the bridge, several lines for a CR reader: refused if they hold a call.
            std::vector<FoundRequest> probed;
            Findings probe(probed);
            readAsCRSeparatedLines(line, probe);
            refused = probe.sawToolCall();
        }
        if (!refused) {
            answer.message = std::move(parsed);
            return answer;
        }
        findings.add(*parsed);
        if (hasInnerCR) readAsCRSeparatedLines(line, findings);
        answer.refused = std::move(found);
        return answer;
    }

    // Not one JSON text: never relayed; answer whatever any reader finds in it.
    if (hasInnerCR) readAsCRSeparatedLines(line, findings);
    readAsStream(line, findings);
    readLeniently(line, findings);
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
    answer.refused = std::move(found);
    return answer;
}

} // namespace sentrova::ClientLineReadings
