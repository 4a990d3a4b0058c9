#include "MCPBridgeCore/JsonReader.hpp"

#include <bit>
#include <charconv>
#include <cstring>
#include <limits>

#include "MCPBridgeCore/ByteScan.hpp"
#include "MCPBridgeCore/Utf8.hpp"

namespace sentrova {

// The reader builds values in place, without a copy of what it has read.
struct JsonNodeAccess {
    // The set* helpers fill a value that holds nothing (null).
    static void setString(Json& json, const char* data, std::size_t size) {
        new (&json.s_) std::string(data, size);
        json.type_ = Json::Type::string;
    }
    static void setString(Json& json, std::string&& text) noexcept {
        new (&json.s_) std::string(std::move(text));
        json.type_ = Json::Type::string;
    }
    static void setArray(Json& json, Json::Array&& elements) noexcept {
        new (&json.a_) Json::Array(std::move(elements));
        json.type_ = Json::Type::array;
    }
    static void setObject(Json& json, Json::Object&& members) noexcept {
        new (&json.o_) Json::Object(std::move(members));
        json.type_ = Json::Type::object;
    }
    static void take(Json& json, Json& from) noexcept { json.moveFrom(std::move(from)); }
    static void markLiteral(Json& json) noexcept { json.type_ = Json::Type::numberText; }

};

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
// Reader. Values are built bottom-up on one value stack: a container, when it closes, takes the
// values (and for an object the keys) pushed since it opened. Nesting lives in frames_, never on
// the C++ stack.

// Directly nested containers that opened with nothing read between them ("[[[[") share one
// frame with a count, so that a line of brackets costs no memory per bracket.
struct ReaderFrame {
    std::size_t firstValue;
    std::size_t firstKey;
    std::uint32_t count;
    bool isObject;
};

// A member name waiting for its object to close: a span of the input when it needed no
// decoding, else a span of the decoded names. The name's string is then built once, in place.
struct PendingKey {
    bool decoded;
    std::size_t offset;
    std::size_t size;
};

// The reader's stacks, kept per thread from one line to the next so that reading a small line
// allocates nothing but the value it returns. Emptied after every read; storage grown by an
// unusually large line is given back rather than held for the life of the thread.
class ReaderScratch {
public:
    static ReaderScratch& forThisThread() noexcept {
        thread_local ReaderScratch scratch;
        return scratch;
    }

    void reset() noexcept {
        values.clear();
        keys.clear();
        decodedKeys.clear();
        frames.clear();
        releaseIfLarge(values);
        releaseIfLarge(keys);
        releaseIfLarge(frames);
        if (decodedKeys.capacity() > kKeptEntries * sizeof(Json)) std::string().swap(decodedKeys);
    }

    std::vector<Json> values;
    std::vector<PendingKey> keys;
    std::string decodedKeys; // names that held escapes or ill-formed UTF-8, decoded
    std::vector<ReaderFrame> frames;

private:
    static constexpr std::size_t kKeptEntries = 4096;

    template <typename T>
    static void releaseIfLarge(std::vector<T>& stack) noexcept {
        if (stack.capacity() > kKeptEntries) std::vector<T>().swap(stack);
    }
};

class JsonReader {
public:
    JsonReader(std::string_view text, ReaderScratch& scratch)
        : begin_(text.data()),
          p_(text.data()),
          end_(text.data() + text.size()),
          values_(scratch.values),
          keys_(scratch.keys),
          decodedKeys_(scratch.decodedKeys),
          frames_(scratch.frames) {}

    std::optional<Json> read() {
        if (end_ - p_ >= 3 && std::memcmp(p_, "\xEF\xBB\xBF", 3) == 0) p_ += 3;
        skipWhitespace();
        if (p_ == end_ || (*p_ != '{' && *p_ != '[')) return std::nullopt;
        bool expectValue = true;
        for (;;) {
            if (expectValue) {
                // Whitespace before a value has already been skipped.
                if (p_ == end_) return std::nullopt;
                const char c = *p_;
                if (c == '{') {
                    ++p_;
                    open(true);
                    skipWhitespace();
                    if (p_ != end_ && *p_ == '}') {
                        ++p_;
                        close();
                        expectValue = false;
                    } else if (!readKey()) {
                        return std::nullopt;
                    }
                } else if (c == '[') {
                    ++p_;
                    open(false);
                    skipWhitespace();
                    if (p_ != end_ && *p_ == ']') {
                        ++p_;
                        close();
                        expectValue = false;
                    }
                } else {
                    if (!readScalar()) return std::nullopt;
                    expectValue = false;
                }
            } else {
                skipWhitespace();
                if (frames_.empty()) break;
                if (p_ == end_) return std::nullopt;
                const char c = *p_;
                const bool inObject = frames_.back().isObject;
                if (c == ',') {
                    ++p_;
                    skipWhitespace();
                    if (inObject && !readKey()) return std::nullopt;
                    expectValue = true;
                } else if (c == (inObject ? '}' : ']')) {
                    ++p_;
                    close();
                } else {
                    return std::nullopt;
                }
            }
        }
        if (p_ != end_) return std::nullopt;
        return std::move(values_.back());
    }

private:
    void skipWhitespace() noexcept {
        // Compact lines have no whitespace: one comparison settles the common case.
        while (p_ != end_ && static_cast<unsigned char>(*p_) <= ' ' &&
               (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }

    void open(bool isObject) {
        if (!frames_.empty()) {
            ReaderFrame& last = frames_.back();
            if (last.isObject == isObject && last.firstValue == values_.size() && last.firstKey == keys_.size() &&
                last.count != UINT32_MAX) {
                ++last.count;
                return;
            }
        }
        frames_.push_back({values_.size(), keys_.size(), 1, isObject});
    }

    // The container's storage is sized once, exactly; its children move in from the value stack.
    void close() {
        const ReaderFrame frame = frames_.back();
        if (--frames_.back().count == 0) frames_.pop_back();
        const std::size_t count = values_.size() - frame.firstValue;
        Json* const children = values_.data() + frame.firstValue;
        if (!frame.isObject) {
            Json::Array elements(count);
            for (std::size_t i = 0; i < count; ++i) JsonNodeAccess::take(elements[i], children[i]);
            values_.resize(frame.firstValue);
            JsonNodeAccess::setArray(values_.emplace_back(), std::move(elements));
            return;
        }
        Json::Object members;
        members.reserve(count);
        const PendingKey* const keys = keys_.data() + frame.firstKey;
        for (std::size_t i = 0; i < count; ++i) {
            const char* name = keys[i].decoded ? decodedKeys_.data() + keys[i].offset : begin_ + keys[i].offset;
            members.push_back(JsonMember{std::string(name, keys[i].size), Json()});
            JsonNodeAccess::take(members.back().value, children[i]);
        }
        values_.resize(frame.firstValue);
        keys_.resize(frame.firstKey);
        if (keys_.empty()) decodedKeys_.clear(); // no outer name still points into it
        JsonNodeAccess::setObject(values_.emplace_back(), std::move(members));
    }

    // A member name, the whitespace after it and the colon; then the whitespace before the value.
    bool readKey() {
        if (p_ == end_ || *p_ != '"') return false;
        const char* const start = ++p_;
        const char* const stop = skipPlainStringBytes(p_, end_);
        if (stop != end_ && *stop == '"') {
            keys_.push_back({false, static_cast<std::size_t>(start - begin_), static_cast<std::size_t>(stop - start)});
            p_ = stop + 1;
        } else {
            const std::size_t offset = decodedKeys_.size();
            p_ = stop;
            if (!readString(decodedKeys_, start)) return false;
            keys_.push_back({true, offset, decodedKeys_.size() - offset});
        }
        skipWhitespace();
        if (p_ == end_ || *p_ != ':') return false;
        ++p_;
        skipWhitespace();
        return true;
    }

    bool readWord(std::string_view word) noexcept {
        if (static_cast<std::size_t>(end_ - p_) < word.size() || std::memcmp(p_, word.data(), word.size()) != 0) return false;
        p_ += word.size();
        return true;
    }

    bool readScalar() {
        switch (*p_) {
        case '"': {
            const char* const start = ++p_;
            const char* const stop = skipPlainStringBytes(p_, end_);
            if (stop != end_ && *stop == '"') {
                JsonNodeAccess::setString(values_.emplace_back(), start, static_cast<std::size_t>(stop - start));
                p_ = stop + 1;
                return true;
            }
            p_ = stop;
            std::string text;
            if (!readString(text, start)) return false;
            JsonNodeAccess::setString(values_.emplace_back(), std::move(text));
            return true;
        }
        case 't':
            if (!readWord("true")) return false;
            values_.push_back(Json::boolean(true));
            return true;
        case 'f':
            if (!readWord("false")) return false;
            values_.push_back(Json::boolean(false));
            return true;
        case 'n':
            if (!readWord("null")) return false;
            values_.push_back(Json::null());
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
            if (fits && !negative) {
                values_.push_back(magnitude <= kInt64Max ? Json::integer(static_cast<std::int64_t>(magnitude))
                                                         : Json::unsignedInteger(magnitude));
                return true;
            }
            if (fits && magnitude <= kInt64Max + 1) {
                // "-0" reads as the integer 0.
                values_.push_back(Json::integer(static_cast<std::int64_t>(0 - magnitude)));
                return true;
            }
        }
        pushLiteral(start);
        return true;
    }

    // A number kept as its own text (short ones stay inside the value, with no allocation).
    void pushLiteral(const char* start) {
        Json& value = values_.emplace_back();
        JsonNodeAccess::setString(value, start, static_cast<std::size_t>(p_ - start));
        JsonNodeAccess::markLiteral(value);
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

    const char* const begin_;
    const char* p_;
    const char* const end_;
    std::vector<Json>& values_;
    std::vector<PendingKey>& keys_;
    std::string& decodedKeys_;
    std::vector<ReaderFrame>& frames_;
};

} // namespace

std::optional<Json> parseJson(std::string_view text) {
    ReaderScratch& scratch = ReaderScratch::forThisThread();
    std::optional<Json> value;
    try {
        value = JsonReader(text, scratch).read();
    } catch (...) { // out of memory: the line is treated as unreadable
    }
    scratch.reset(); // also frees what a refused line had read so far
    return value;
}

} // namespace sentrova
