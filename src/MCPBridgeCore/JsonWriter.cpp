#include "MCPBridgeCore/JsonWriter.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include "MCPBridgeCore/ByteScan.hpp"

namespace sentrova {

namespace {

inline bool isDigit(char c) noexcept { return static_cast<unsigned char>(c - '0') < 10; }

// The first byte at or after p that the writer must escape.
inline const char* skipUnescapedBytes(const char* p, const char* end, bool escapeSlash) noexcept {
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    // Without the slash option this compares against the quote a second time, which finds nothing new.
    const __m128i slash = _mm_set1_epi8(escapeSlash ? '/' : '"');
    const __m128i controlMax = _mm_set1_epi8(0x1F);
    auto special = [&](__m128i v) {
        __m128i control = _mm_cmpeq_epi8(_mm_subs_epu8(v, controlMax), _mm_setzero_si128()); // v <= 0x1F unsigned
        return _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                            _mm_or_si128(_mm_cmpeq_epi8(v, slash), control));
    };
    p = skipUnmarkedBlocks(p, end, special);
#endif
    while (p < end) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\' || c < 0x20 || (escapeSlash && c == '/')) return p;
        ++p;
    }
    return end;
}

// ---------------------------------------------------------------------------------------------
// Writer. Nesting lives in an explicit stack of open containers, never on the C++ stack.

class JsonWriter {
public:
    JsonWriter(std::string& out, JsonWriteOptions options) : out_(out), options_(options) {}

    bool write(const Json& root) {
        if (!writeValue(root)) return false;
        while (!open_.empty()) {
            Open& top = open_.back();
            if (top.next == top.end) {
                out_.push_back(top.isObject ? '}' : ']');
                order_.resize(top.orderBase);
                open_.pop_back();
                continue;
            }
            if (top.next != top.begin) out_.push_back(',');
            const std::size_t at = top.next++;
            const Json* value;
            if (top.isObject) {
                const JsonMember* member = order_[at];
                appendJsonString(out_, member->key, options_);
                out_.push_back(':');
                value = &member->value;
            } else {
                value = &top.elements[at - top.begin];
            }
            if (!writeValue(*value)) return false; // may open a container: top is then stale
        }
        return true;
    }

private:
    // One container being written: elements of an array, or the sorted members of an object as
    // the slice [begin, end) of order_.
    struct Open {
        bool isObject;
        const Json* elements;
        std::size_t begin;
        std::size_t next;
        std::size_t end;
        std::size_t orderBase;
    };

    // Writes a scalar whole, or the opening of a container (its contents follow from the stack).
    bool writeValue(const Json& value) {
        switch (value.type()) {
        case Json::Type::null: out_.append("null"); return true;
        case Json::Type::boolean: out_.append(value.boolValue() ? "true" : "false"); return true;
        case Json::Type::integer: appendDecimal(value.intValue()); return true;
        case Json::Type::unsignedInteger: appendDecimal(value.uintValue()); return true;
        case Json::Type::real: return appendNumber(value);
        case Json::Type::string: appendJsonString(out_, value.stringValue(), options_); return true;
        case Json::Type::array: {
            const Json::Array& elements = value.arrayValue();
            out_.push_back('[');
            open_.push_back({false, elements.data(), 0, 0, elements.size(), order_.size()});
            return true;
        }
        case Json::Type::object: {
            const Json::Object& members = value.objectValue();
            const std::size_t base = order_.size();
            for (const JsonMember& member : members) order_.push_back(&member);
            sortTail(base);
            out_.push_back('{');
            open_.push_back({true, nullptr, base, base, base + members.size(), base});
            return true;
        }
        default: return false;
        }
    }

    template <typename Integer>
    void appendDecimal(Integer number) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        out_.append(digits, result.ptr);
    }

    // A number read from text: echoed as read when asked, and an integer of any size keeps all
    // its digits; anything else goes through its double value.
    bool appendNumber(const Json& value) {
        const std::string_view text = value.numberText();
        if (!text.empty() && text.back() != 'N' && text.back() != 'y') { // not NaN or an infinity
            if (options_.verbatimNumbers || text.find_first_of(".eE") == std::string_view::npos) {
                out_.append(text);
                return true;
            }
        }
        return appendReal(value.realValue());
    }

    // Integral values below 2^53 print as integers (1.0 as 1, -0.0 as 0); everything else in
    // the shortest text that reads back to the same double.
    bool appendReal(double number) {
        if (!std::isfinite(number)) return false;
        if (std::trunc(number) == number && std::fabs(number) < 9007199254740992.0) {
            appendDecimal(static_cast<std::int64_t>(number));
            return true;
        }
        char text[32];
        const auto result = std::to_chars(text, text + sizeof text, number);
        out_.append(text, result.ptr);
        return true;
    }

    void sortTail(std::size_t base) {
        auto less = [](const JsonMember* a, const JsonMember* b) { return jsonKeyLess(a->key, b->key); };
        const auto first = order_.begin() + static_cast<std::ptrdiff_t>(base);
        if (order_.end() - first > 24) {
            std::stable_sort(first, order_.end(), less);
            return;
        }
        for (auto it = first + (first != order_.end() ? 1 : 0); it < order_.end(); ++it) {
            const JsonMember* member = *it;
            auto hole = it;
            while (hole != first && less(member, *(hole - 1))) {
                *hole = *(hole - 1);
                --hole;
            }
            *hole = member;
        }
    }

    std::string& out_;
    JsonWriteOptions options_;
    std::vector<Open> open_;
    std::vector<const JsonMember*> order_; // sorted members of every open object, innermost last
};

inline char foldCase(unsigned char c) noexcept {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
}


} // namespace

std::optional<std::string> writeJson(const Json& value, JsonWriteOptions options) {
    try {
        std::string out;
        JsonWriter writer(out, options);
        if (!writer.write(value)) return std::nullopt;
        return out;
    } catch (...) {
        return std::nullopt;
    }
}

void appendJsonString(std::string& out, std::string_view text, JsonWriteOptions options) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.reserve(out.size() + text.size() + 2);
    out.push_back('"');
    const char* p = text.data();
    const char* const end = p + text.size();
    const char* run = p;
    for (;;) {
        p = skipUnescapedBytes(p, end, options.escapeSlash);
        if (p == end) break;
        out.append(run, p);
        const auto c = static_cast<unsigned char>(*p);
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '/': out.append("\\/"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default: {
            const char escape[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
            out.append(escape, sizeof escape);
        }
        }
        run = ++p;
    }
    out.append(run, end);
    out.push_back('"');
}

bool jsonKeyLess(std::string_view a, std::string_view b) noexcept {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Digit runs compare by value: without leading zeros, the longer run is larger,
            // equal lengths compare digit by digit. Equal values fall through to the next token.
            std::size_t aEnd = i;
            while (aEnd < a.size() && isDigit(a[aEnd])) ++aEnd;
            std::size_t bEnd = j;
            while (bEnd < b.size() && isDigit(b[bEnd])) ++bEnd;
            while (i < aEnd && a[i] == '0') ++i;
            while (j < bEnd && b[j] == '0') ++j;
            if (aEnd - i != bEnd - j) return aEnd - i < bEnd - j;
            const int order = std::memcmp(a.data() + i, b.data() + j, aEnd - i);
            if (order != 0) return order < 0;
            i = aEnd;
            j = bEnd;
            continue;
        }
        const char x = foldCase(static_cast<unsigned char>(a[i]));
        const char y = foldCase(static_cast<unsigned char>(b[j]));
        if (x != y) return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
        ++i;
        ++j;
    }
    if (i == a.size() && j == b.size()) return a < b; // equal under the collation: plain byte order
    return i == a.size();
}


} // namespace sentrova
