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
// Writer. It walks the tape with an explicit stack, never the C++ stack. Arrays and objects of
// at most one member are written in tape order; containers that end where the open one ends
// share its stack entry, so a line of brackets costs a bit per bracket, not an entry. Only
// objects with members to sort keep their sorted keys while they are open.

class JsonWriter {
public:
    JsonWriter(std::string& out, JsonWriteOptions options) : out_(out), options_(options) {}

    bool write(const JsonDocument& doc, std::size_t root) {
        doc_ = &doc;
        if (!writeValue(root)) return false;
        while (!open_.empty()) {
            Open& top = open_.back();
            std::size_t at;
            if (top.sorted) {
                if (top.next == top.end) {
                    closeOne();
                    order_.resize(top.begin);
                    open_.pop_back();
                    continue;
                }
                if (top.next != top.begin) out_.push_back(',');
                at = order_[top.next++];
            } else {
                if (top.next == top.end) {
                    for (; top.depth > 0; --top.depth) closeOne();
                    open_.pop_back();
                    continue;
                }
                if (!top.first) out_.push_back(',');
                top.first = false;
                at = top.next;
                top.next = doc.next(kinds_.back() ? at + 1 : at);
            }
            if (kinds_.back()) { // an object: its key, then the value after it
                appendJsonString(out_, doc.text(at), options_);
                out_.push_back(':');
                ++at;
            }
            if (!writeValue(at)) return false; // may open a container: top is then stale
        }
        return true;
    }

private:
    // Open containers. An entry in tape order covers `depth` containers that all end at `end`,
    // the innermost taking its children from `next`; a sorted entry is one object whose keys'
    // positions are order_[begin, end), written up to `next`.
    struct Open {
        bool sorted;
        bool first;
        std::size_t depth;
        std::size_t begin;
        std::size_t next;
        std::size_t end;
    };

    void closeOne() {
        out_.push_back(kinds_.back() ? '}' : ']');
        kinds_.pop_back();
    }

    void openInOrder(std::size_t at, bool isObject) {
        out_.push_back(isObject ? '{' : '[');
        kinds_.push_back(isObject);
        const std::size_t end = doc_->next(at);
        if (!open_.empty() && !open_.back().sorted && open_.back().end == end && open_.back().next == end) {
            // The last child of the open container: both end together.
            Open& top = open_.back();
            ++top.depth;
            top.first = true;
            top.next = at + 1;
            return;
        }
        open_.push_back({false, true, 1, 0, at + 1, end});
    }

    // Writes a scalar whole, or the opening of a container (its contents follow from the stack).
    bool writeValue(std::size_t at) {
        const JsonDocument& doc = *doc_;
        switch (JsonDocument::tag(doc.tape[at])) {
        case JsonTag::null: out_.append("null"); return true;
        case JsonTag::falseValue: out_.append("false"); return true;
        case JsonTag::trueValue: out_.append("true"); return true;
        case JsonTag::smallInteger: appendDecimal(JsonDocument::smallIntegerValue(doc.tape[at])); return true;
        case JsonTag::integer: appendDecimal(static_cast<std::int64_t>(doc.tape[at + 1])); return true;
        case JsonTag::unsignedInteger: appendDecimal(doc.tape[at + 1]); return true;
        case JsonTag::real: return appendReal(std::bit_cast<double>(doc.tape[at + 1]));
        case JsonTag::numberText:
        case JsonTag::longNumberText: return appendNumberText(doc.text(at));
        case JsonTag::string:
        case JsonTag::longString: appendJsonString(out_, doc.text(at), options_); return true;
        case JsonTag::array: openInOrder(at, false); return true;
        case JsonTag::object: {
            const std::size_t end = doc.next(at);
            const std::size_t base = order_.size();
            for (std::size_t i = at + 1; i < end; i = doc.next(i + 1)) order_.push_back(i);
            if (order_.size() - base < 2) {
                order_.resize(base);
                openInOrder(at, true);
                return true;
            }
            sortTail(base);
            out_.push_back('{');
            kinds_.push_back(true);
            open_.push_back({true, true, 1, base, base, order_.size()});
            return true;
        }
        }
        return false;
    }

    template <typename Integer>
    void appendDecimal(Integer number) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        out_.append(digits, result.ptr);
    }

    // A number read from text: echoed as read when asked, and an integer of any size keeps all
    // its digits; anything else goes through its double value.
    bool appendNumberText(std::string_view text) {
        if (text.back() != 'N' && text.back() != 'y') { // not NaN or an infinity
            if (options_.verbatimNumbers || text.find_first_of(".eE") == std::string_view::npos) {
                out_.append(text);
                return true;
            }
        }
        return appendReal(jsonLiteralValue(text));
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
        auto less = [this](std::size_t a, std::size_t b) { return jsonKeyLess(doc_->text(a), doc_->text(b)); };
        const auto first = order_.begin() + static_cast<std::ptrdiff_t>(base);
        if (order_.end() - first > 24) {
            std::stable_sort(first, order_.end(), less);
            return;
        }
        for (auto it = first + 1; it < order_.end(); ++it) {
            const std::size_t member = *it;
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
    const JsonDocument* doc_ = nullptr;
    std::vector<Open> open_;
    std::vector<bool> kinds_;          // every open container, innermost last: true for an object
    std::vector<std::size_t> order_;   // key positions of every open sorted object, innermost last
};

inline char foldCase(unsigned char c) noexcept {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
}


} // namespace

std::optional<std::string> writeJson(const Json& value, JsonWriteOptions options) {
    if (value.document() == nullptr) return std::string("null");
    try {
        std::string out;
        JsonWriter writer(out, options);
        if (!writer.write(*value.document(), value.position())) return std::nullopt;
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
