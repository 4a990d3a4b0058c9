#include "MCPBridgeCore/JsonReader.hpp"

#include <bit>
#include <charconv>
#include <cstring>
#include <limits>

#include "MCPBridgeCore/ByteScan.hpp"
#include "MCPBridgeCore/Utf8.hpp"

namespace sentrova {

namespace {

inline bool isDigit(char c) noexcept { return static_cast<unsigned char>(c - '0') < 10; }

// The first byte at or after p that ends a plain run inside a string being read: a quote, a
// backslash, a control character, or any byte of a multi-byte UTF-8 sequence.
inline const char* skipPlainStringBytes(const char* p, const char* end) noexcept {
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i space = _mm_set1_epi8(0x20);
    // Signed comparison: bytes from 0x80 up are negative, so one test finds controls and non-ASCII.
    auto special = [&](__m128i v) {
        return _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                            _mm_cmplt_epi8(v, space));
    };
    // Most names and many values are short: look at the first 16 bytes alone before going wide.
    if (end - p >= 16) {
        const auto mask = static_cast<unsigned>(_mm_movemask_epi8(special(loadBlock(p))));
        if (mask != 0) return p + std::countr_zero(mask);
        p += 16;
    }
    while (end - p >= 64) {
        __m128i s0 = special(loadBlock(p));
        __m128i s1 = special(loadBlock(p + 16));
        __m128i s2 = special(loadBlock(p + 32));
        __m128i s3 = special(loadBlock(p + 48));
        __m128i any = _mm_or_si128(_mm_or_si128(s0, s1), _mm_or_si128(s2, s3));
        if (_mm_movemask_epi8(any) != 0) {
            std::uint64_t mask = static_cast<std::uint32_t>(_mm_movemask_epi8(s0)) |
                                 static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(s1))) << 16 |
                                 static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(s2))) << 32 |
                                 static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(s3))) << 48;
            return p + std::countr_zero(mask);
        }
        p += 64;
    }
    p = skipUnmarkedBlocks(p, end, special);
#endif
    while (p < end) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) return p;
        ++p;
    }
    return end;
}

inline int hexDigit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

inline bool readHex4(const char* p, std::uint32_t& value) noexcept {
    value = 0;
    for (int i = 0; i < 4; ++i) {
        int digit = hexDigit(p[i]);
        if (digit < 0) return false;
        value = value << 4 | static_cast<std::uint32_t>(digit);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Reader. It writes the document's tape front to back. While a container is open, its word
// holds the index of the container around it (field A) and its count so far (field B); closing
// it puts its end in field A and makes the outer one current again. Nesting so costs one tape
// word per container and nothing else, at any depth, and never uses the C++ stack.

constexpr std::size_t kNone = kJsonFieldA;

class JsonReader {
public:
    JsonReader(std::string_view text, JsonDocument& doc)
        : p_(text.data()), end_(text.data() + text.size()), doc_(doc), tape_(doc.tape) {
        // Every word stands for at least two bytes of a valid line (a scalar and its comma, a
        // bracket and its partner), so this is enough; only pages written count in memory.
        tape_.reserve(text.size() / 2 + 2);
        doc_.strings.reserve(text.size());
    }

    bool read() {
        if (end_ - p_ >= 3 && std::memcmp(p_, "\xEF\xBB\xBF", 3) == 0) p_ += 3;
        skipWhitespace();
        if (p_ == end_ || (*p_ != '{' && *p_ != '[')) return false;
        bool expectValue = true;
        for (;;) {
            if (expectValue) {
                // Whitespace before a value has already been skipped.
                if (p_ == end_) return false;
                const char c = *p_;
                if (current_ != kNone && !inObject()) countChild();
                if (c == '{') {
                    ++p_;
                    open(JsonTag::object);
                    skipWhitespace();
                    if (p_ != end_ && *p_ == '}') {
                        ++p_;
                        close();
                        expectValue = false;
                    } else if (!readKey()) {
                        return false;
                    }
                } else if (c == '[') {
                    ++p_;
                    open(JsonTag::array);
                    skipWhitespace();
                    if (p_ != end_ && *p_ == ']') {
                        ++p_;
                        close();
                        expectValue = false;
                    }
                } else {
                    if (!readScalar()) return false;
                    expectValue = false;
                }
            } else {
                skipWhitespace();
                if (current_ == kNone) break;
                if (p_ == end_) return false;
                const char c = *p_;
                const bool object = inObject();
                if (c == ',') {
                    ++p_;
                    skipWhitespace();
                    if (object && !readKey()) return false;
                    expectValue = true;
                } else if (c == (object ? '}' : ']')) {
                    ++p_;
                    close();
                } else {
                    return false;
                }
            }
        }
        return p_ == end_;
    }

private:
    void skipWhitespace() noexcept {
        // Compact lines have no whitespace: one comparison settles the common case.
        while (p_ != end_ && static_cast<unsigned char>(*p_) <= ' ' &&
               (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }

    bool inObject() const noexcept { return JsonDocument::tag(tape_[current_]) == JsonTag::object; }

    void countChild() noexcept {
        const std::uint64_t w = tape_[current_];
        const std::uint64_t count = JsonDocument::fieldB(w);
        if (count != kJsonCountSaturated) tape_[current_] = JsonDocument::word(JsonDocument::tag(w), JsonDocument::fieldA(w), count + 1);
    }

    void open(JsonTag tag) {
        tape_.push_back(JsonDocument::word(tag, current_, 0));
        current_ = tape_.size() - 1;
    }

    void close() noexcept {
        const std::uint64_t w = tape_[current_];
        tape_[current_] = JsonDocument::word(JsonDocument::tag(w), tape_.size(), JsonDocument::fieldB(w));
        current_ = JsonDocument::fieldA(w);
    }

    // A member name, the whitespace after it and the colon; then the whitespace before the value.
    bool readKey() {
        if (p_ == end_ || *p_ != '"') return false;
        countChild();
        if (!readStringValue(JsonTag::string)) return false;
        skipWhitespace();
        if (p_ == end_ || *p_ != ':') return false;
        ++p_;
        skipWhitespace();
        return true;
    }

    // A string whose opening quote is at p_, decoded into the store.
    bool readStringValue(JsonTag tag) {
        const char* const start = ++p_;
        const std::size_t offset = doc_.strings.size();
        p_ = skipPlainStringBytes(p_, end_);
        if (p_ != end_ && *p_ == '"') {
            doc_.strings.append(start, p_);
            ++p_;
        } else if (!readString(doc_.strings, start)) {
            return false;
        }
        doc_.addText(tag, offset, doc_.strings.size() - offset);
        return true;
    }

    bool readWord(std::string_view word) noexcept {
        if (static_cast<std::size_t>(end_ - p_) < word.size() || std::memcmp(p_, word.data(), word.size()) != 0) return false;
        p_ += word.size();
        return true;
    }

    bool readScalar() {
        switch (*p_) {
        case '"': return readStringValue(JsonTag::string);
        case 't':
            if (!readWord("true")) return false;
            tape_.push_back(JsonDocument::word(JsonTag::trueValue, 0, 0));
            return true;
        case 'f':
            if (!readWord("false")) return false;
            tape_.push_back(JsonDocument::word(JsonTag::falseValue, 0, 0));
            return true;
        case 'n':
            if (!readWord("null")) return false;
            tape_.push_back(JsonDocument::word(JsonTag::null, 0, 0));
            return true;
        case 'N':
        case 'I': {
            const char* const start = p_;
            if (!readWord(*p_ == 'N' ? "NaN" : "Infinity")) return false;
            pushLiteral(start);
            return true;
        }
        default:
            return readNumber();
        }
    }

    bool readNumber() {
        const char* const start = p_;
        const bool negative = *p_ == '-';
        if (negative) {
            ++p_;
            if (p_ != end_ && *p_ == 'I') {
                if (!readWord("Infinity")) return false;
                pushLiteral(start);
                return true;
            }
        }
        const char* const digits = p_;
        if (p_ == end_ || !isDigit(*p_)) return false;
        if (*p_ == '0') {
            ++p_;
        } else {
            while (p_ != end_ && isDigit(*p_)) ++p_;
        }
        const char* const digitsEnd = p_;
        bool integral = true;
        if (p_ != end_ && *p_ == '.') {
            ++p_;
            if (p_ == end_ || !isDigit(*p_)) return false;
            while (p_ != end_ && isDigit(*p_)) ++p_;
            integral = false;
        }
        if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
            ++p_;
            if (p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
            if (p_ == end_ || !isDigit(*p_)) return false;
            while (p_ != end_ && isDigit(*p_)) ++p_;
            integral = false;
        }
        if (integral) {
            std::uint64_t magnitude = 0;
            const bool fits = std::from_chars(digits, digitsEnd, magnitude).ec == std::errc();
            constexpr auto kInt64Max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
            if (fits && !negative && magnitude > kInt64Max) {
                tape_.push_back(JsonDocument::word(JsonTag::unsignedInteger, 0, 0));
                tape_.push_back(magnitude);
                return true;
            }
            if (fits && magnitude <= kInt64Max + (negative ? 1 : 0)) {
                // "-0" reads as the integer 0.
                pushInteger(static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude));
                return true;
            }
        }
        pushLiteral(start);
        return true;
    }

    void pushInteger(std::int64_t value) {
        if (JsonDocument::fitsSmall(value)) {
            tape_.push_back(JsonDocument::smallIntegerWord(value));
        } else {
            tape_.push_back(JsonDocument::word(JsonTag::integer, 0, 0));
            tape_.push_back(static_cast<std::uint64_t>(value));
        }
    }

    // A number kept as its own text.
    void pushLiteral(const char* start) {
        const std::size_t offset = doc_.strings.size();
        doc_.strings.append(start, p_);
        doc_.addText(JsonTag::numberText, offset, static_cast<std::size_t>(p_ - start));
    }

    // Appends the string that started at start (after its quote) to out; p_ is at or before the
    // first byte that needs a look. Plain runs are copied in bulk; only escapes and ill-formed
    // UTF-8 break a run.
    bool readString(std::string& out, const char* start) {
        const char* run = start;
        for (;;) {
            p_ = skipPlainStringBytes(p_, end_);
            if (p_ == end_) return false;
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                out.append(run, p_);
                ++p_;
                return true;
            }
            if (c == '\\') {
                out.append(run, p_);
                ++p_;
                if (!readEscape(out)) return false;
                run = p_;
                continue;
            }
            if (c < 0x20) return false;
            const std::ptrdiff_t length = utf8SequenceLength(reinterpret_cast<const unsigned char*>(p_),
                                                             reinterpret_cast<const unsigned char*>(end_));
            if (length > 0) {
                p_ += length;
                continue;
            }
            out.append(run, p_);
            out.append(kReplacementCharacter, 3);
            p_ -= length;
            run = p_;
        }
    }

    // The escape after a backslash. A high surrogate pairs with a directly following low
    // surrogate escape; any surrogate left alone becomes U+FFFD.
    bool readEscape(std::string& out) {
        if (p_ == end_) return false;
        const char c = *p_++;
        switch (c) {
        case '"': out.push_back('"'); return true;
        case '\\': out.push_back('\\'); return true;
        case '/': out.push_back('/'); return true;
        case 'b': out.push_back('\b'); return true;
        case 'f': out.push_back('\f'); return true;
        case 'n': out.push_back('\n'); return true;
        case 'r': out.push_back('\r'); return true;
        case 't': out.push_back('\t'); return true;
        case 'u': break;
        default: return false;
        }
        std::uint32_t codePoint;
        if (end_ - p_ < 4 || !readHex4(p_, codePoint)) return false;
        p_ += 4;
        if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
            std::uint32_t low;
            if (end_ - p_ >= 6 && p_[0] == '\\' && p_[1] == 'u' && readHex4(p_ + 2, low) && low >= 0xDC00 && low <= 0xDFFF) {
                codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
                p_ += 6;
            } else {
                codePoint = 0xFFFD;
            }
        } else if (codePoint >= 0xDC00 && codePoint <= 0xDFFF) {
            codePoint = 0xFFFD;
        }
        appendUtf8(out, codePoint);
        return true;
    }

    const char* p_;
    const char* const end_;
    JsonDocument& doc_;
    std::vector<std::uint64_t>& tape_;
    std::size_t current_ = kNone; // the innermost open container
};

constexpr std::size_t kCheckedLineSize = 1 << 16;

// A large line's first container is checked to close before it is read, so that one that never
// closes (twenty megabytes of "[") is refused before a word is written for it. The reader takes
// nothing after that container but whitespace.
bool firstContainerCloses(std::string_view text) noexcept {
    const std::size_t start = text.find_first_of("{[");
    return start != std::string_view::npos && jsonContainerEnd(text, start) != std::string_view::npos;
}

} // namespace

std::size_t jsonContainerEnd(std::string_view text, std::size_t from) noexcept {
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

std::optional<Json> parseJson(std::string_view text) {
    if (text.size() > kCheckedLineSize && !firstContainerCloses(text)) return std::nullopt;
    try {
        auto doc = std::make_shared<JsonDocument>();
        if (!JsonReader(text, *doc).read()) return std::nullopt;
        return Json(std::move(doc), 0);
    } catch (...) { // out of memory: the line is treated as unreadable
        return std::nullopt;
    }
}

} // namespace sentrova
