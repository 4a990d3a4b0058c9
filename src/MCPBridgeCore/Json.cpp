#include "MCPBridgeCore/Json.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace sentrova {

// ---------------------------------------------------------------------------------------------
// Whole-tree operations. A line may nest a million levels deep, so copying, destroying and
// comparing never recurse without bound: copying and comparing walk the tree with explicit work
// lists; destroying recurses only a few levels (the usual message) and hands anything deeper
// to a work list.

namespace {
double literalValue(std::string_view text) noexcept;
} // namespace

class JsonTreeOps {
public:
    using CopyTask = std::pair<const Json*, Json*>;

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

    static bool isContainer(const Json& value) noexcept {
        return value.type_ == Json::Type::array || value.type_ == Json::Type::object;
    }

    // Copies one node; a container gets null slots that the caller fills from the work list.
    static void copyNode(const Json& source, Json& target, std::vector<CopyTask>& pending) {
        switch (source.type_) {
        case Json::Type::string:
        case Json::Type::numberText:
            new (&target.s_) std::string(source.s_);
            target.type_ = source.type_;
            return;
        case Json::Type::array:
            new (&target.a_) Json::Array(source.a_.size());
            target.type_ = Json::Type::array;
            if (!source.a_.empty()) pending.emplace_back(&source, &target);
            return;
        case Json::Type::object:
            new (&target.o_) Json::Object(source.o_.size());
            target.type_ = Json::Type::object;
            if (!source.o_.empty()) pending.emplace_back(&source, &target);
            return;
        default:
            target.u_ = source.u_;
            target.type_ = source.type_;
            return;
        }
    }

    // target must be null on entry.
    static void copyTree(const Json& source, Json& target) {
        if (!isContainer(source)) {
            std::vector<CopyTask> none;
            copyNode(source, target, none);
            return;
        }
        std::vector<CopyTask> pending;
        copyNode(source, target, pending);
        while (!pending.empty()) {
            auto [from, to] = pending.back();
            pending.pop_back();
            if (from->type_ == Json::Type::array) {
                const Json::Array& elements = from->a_;
                Json::Array& copies = to->a_;
                for (std::size_t i = 0; i < elements.size(); ++i) copyNode(elements[i], copies[i], pending);
            } else {
                const Json::Object& members = from->o_;
                Json::Object& copies = to->o_;
                for (std::size_t i = 0; i < members.size(); ++i) {
                    copies[i].key = members[i].key;
                    copyNode(members[i].value, copies[i].value, pending);
                }
            }
        }
    }

    // Frees whatever node holds and leaves it null. Containers nested up to depthLeft levels
    // below node are freed by recursion, which needs no allocation; a deeper one goes to the
    // iterative walk.
    static void destroyValue(Json& node, unsigned depthLeft) noexcept {
        if (node.type_ == Json::Type::array) {
            if (depthLeft == 0) return destroyTree(node);
            for (Json& element : node.a_) destroyChild(element, depthLeft - 1);
        } else if (node.type_ == Json::Type::object) {
            if (depthLeft == 0) return destroyTree(node);
            for (JsonMember& member : node.o_) destroyChild(member.value, depthLeft - 1);
        }
        freeFlat(node);
    }

    // Empties a child before its container goes, so that the container's own destructor finds
    // only nulls and scalars.
    static void destroyChild(Json& child, unsigned depthLeft) noexcept {
        if (child.type_ == Json::Type::string || child.type_ == Json::Type::numberText) {
            std::destroy_at(&child.s_);
            child.type_ = Json::Type::null;
        } else if (isContainer(child)) {
            destroyValue(child, depthLeft);
        }
    }

    // Moves every container child of node onto the work list, leaving node flat.
    static void detachContainers(Json& node, std::vector<Json>& pending) {
        if (node.type_ == Json::Type::array) {
            for (Json& element : node.a_) {
                if (isContainer(element)) pending.push_back(std::move(element));
            }
        } else if (node.type_ == Json::Type::object) {
            for (JsonMember& member : node.o_) {
                if (isContainer(member.value)) pending.push_back(std::move(member.value));
            }
        }
    }

    // Frees a container of any depth. Each node popped from the work list is made flat before
    // it is freed, so no destructor nests more than one level.
    static void destroyTree(Json& root) noexcept {
        std::vector<Json> pending;
        detachContainers(root, pending);
        freeFlat(root);
        while (!pending.empty()) {
            Json node = std::move(pending.back());
            pending.pop_back();
            detachContainers(node, pending);
            freeFlat(node);
        }
    }

    // Frees node, whose children hold no containers, and leaves it null.
    static void freeFlat(Json& node) noexcept {
        switch (node.type_) {
        case Json::Type::string:
        case Json::Type::numberText: std::destroy_at(&node.s_); break;
        case Json::Type::array: std::destroy_at(&node.a_); break;
        case Json::Type::object: std::destroy_at(&node.o_); break;
        default: break;
        }
        node.type_ = Json::Type::null;
        node.u_ = 0;
    }

    static bool sameScalar(const Json& a, const Json& b) noexcept {
        if (a.type() == Json::Type::real) { // a literal and a double compare by value
            const double x = a.realValue();
            const double y = b.realValue();
            return x == y || (std::isnan(x) && std::isnan(y));
        }
        switch (a.type_) {
        case Json::Type::null: return true;
        case Json::Type::boolean: return a.b_ == b.b_;
        case Json::Type::integer: return a.i_ == b.i_;
        case Json::Type::unsignedInteger: return a.u_ == b.u_;
        case Json::Type::real: return a.d_ == b.d_ || (std::isnan(a.d_) && std::isnan(b.d_));
        case Json::Type::string: return a.s_ == b.s_;
        default: return false;
        }
    }

    static bool equalTrees(const Json& a, const Json& b) {
        if (a.type() != b.type()) return false;
        if (!isContainer(a)) return sameScalar(a, b);
        std::vector<std::pair<const Json*, const Json*>> pending{{&a, &b}};
        while (!pending.empty()) {
            auto [x, y] = pending.back();
            pending.pop_back();
            if (x->type() != y->type()) return false;
            if (x->type_ == Json::Type::array) {
                if (x->a_.size() != y->a_.size()) return false;
                for (std::size_t i = 0; i < x->a_.size(); ++i) pending.emplace_back(&x->a_[i], &y->a_[i]);
            } else if (x->type_ == Json::Type::object) {
                if (x->o_.size() != y->o_.size()) return false;
                for (std::size_t i = 0; i < x->o_.size(); ++i) {
                    if (x->o_[i].key != y->o_[i].key) return false;
                    pending.emplace_back(&x->o_[i].value, &y->o_[i].value);
                }
            } else if (!sameScalar(*x, *y)) {
                return false;
            }
        }
        return true;
    }
};

// ---------------------------------------------------------------------------------------------
// Value model

namespace {
// How many container levels destruction frees by recursion before it switches to a work list:
// enough for any ordinary message, small enough to keep the stack shallow.
constexpr unsigned kRecursiveDestroyDepth = 32;
} // namespace

Json::Json(const Json& other) : u_(0) {
    try {
        copyFrom(other);
    } catch (...) { // a half-built copy is still a valid tree: free it, as no destructor will
        destroy();
        throw;
    }
}

Json& Json::operator=(const Json& other) {
    if (this != &other) {
        Json copy(other); // other may live inside this tree
        destroy();
        moveFrom(std::move(copy));
    }
    return *this;
}

Json& Json::operator=(Json&& other) noexcept {
    if (this != &other) {
        Json taken(std::move(other)); // other may live inside this tree
        destroy();
        moveFrom(std::move(taken));
    }
    return *this;
}

void Json::destroy() noexcept { JsonTreeOps::destroyValue(*this, kRecursiveDestroyDepth); }

void Json::copyFrom(const Json& other) { JsonTreeOps::copyTree(other, *this); }

Json Json::null() { return {}; }

Json Json::boolean(bool value) {
    Json json;
    json.type_ = Type::boolean;
    json.b_ = value;
    return json;
}

Json Json::integer(std::int64_t value) {
    Json json;
    json.type_ = Type::integer;
    json.i_ = value;
    return json;
}

Json Json::unsignedInteger(std::uint64_t value) {
    Json json;
    json.type_ = Type::unsignedInteger;
    json.u_ = value;
    return json;
}

Json Json::real(double value) {
    Json json;
    json.type_ = Type::real;
    json.d_ = value;
    return json;
}

Json Json::string(std::string value) {
    Json json;
    JsonTreeOps::setString(json, std::move(value));
    return json;
}

Json Json::array() { return array(Array()); }

Json Json::array(Array elements) {
    Json json;
    JsonTreeOps::setArray(json, std::move(elements));
    return json;
}

Json Json::object() { return object(Object()); }

Json Json::object(Object members) {
    Json json;
    JsonTreeOps::setObject(json, std::move(members));
    return json;
}

bool Json::isNumber() const noexcept { return type_ == Type::boolean || isNumberLiteral(); }

bool Json::isNumberLiteral() const noexcept {
    return type_ == Type::integer || type_ == Type::unsignedInteger || type_ == Type::real || type_ == Type::numberText;
}

bool Json::boolValue() const noexcept { return type_ == Type::boolean && b_; }
std::int64_t Json::intValue() const noexcept { return type_ == Type::integer ? i_ : 0; }
std::uint64_t Json::uintValue() const noexcept { return type_ == Type::unsignedInteger ? u_ : 0; }
double Json::realValue() const noexcept {
    if (type_ == Type::numberText) return literalValue(s_);
    return type_ == Type::real ? d_ : 0.0;
}

std::string_view Json::numberText() const noexcept { return type_ == Type::numberText ? std::string_view(s_) : std::string_view(); }

std::optional<double> Json::numberValue() const noexcept {
    switch (type_) {
    case Type::boolean: return b_ ? 1.0 : 0.0;
    case Type::integer: return static_cast<double>(i_);
    case Type::unsignedInteger: return static_cast<double>(u_);
    case Type::real: return d_;
    case Type::numberText: return literalValue(s_);
    default: return std::nullopt;
    }
}

const std::string& Json::stringValue() const noexcept {
    static const std::string empty;
    return type_ == Type::string ? s_ : empty;
}

const Json::Array& Json::arrayValue() const noexcept {
    static const Array empty;
    return type_ == Type::array ? a_ : empty;
}

const Json::Object& Json::objectValue() const noexcept {
    static const Object empty;
    return type_ == Type::object ? o_ : empty;
}

const Json* Json::find(std::string_view key) const noexcept {
    if (type_ != Type::object) return nullptr;
    for (auto it = o_.rbegin(); it != o_.rend(); ++it) {
        if (it->key == key) return &it->value;
    }
    return nullptr;
}

bool operator==(const Json& a, const Json& b) { return JsonTreeOps::equalTrees(a, b); }

// ---------------------------------------------------------------------------------------------
// Byte scanning

namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD"; // U+FFFD

inline bool isDigit(char c) noexcept { return static_cast<unsigned char>(c - '0') < 10; }

#if !defined(__SSE2__)
// Word-at-a-time helpers: the high bit of each byte of the result marks a match.
constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
inline std::uint64_t bytesEqual(std::uint64_t word, unsigned char c) noexcept {
    std::uint64_t x = word ^ (kOnes * c);
    return (x - kOnes) & ~x & kHighs;
}
inline std::uint64_t bytesBelow(std::uint64_t word, unsigned char c) noexcept { return (word - kOnes * c) & ~word & kHighs; }
inline std::uint64_t loadWord(const char* p) noexcept {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    return word;
}
#endif

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
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)))));
        if (mask != 0) return p + std::countr_zero(mask);
        p += 16;
    }
    while (end - p >= 64) {
        __m128i s0 = special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        __m128i s1 = special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)));
        __m128i s2 = special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)));
        __m128i s3 = special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)));
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
    while (end - p >= 16) {
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)))));
        if (mask != 0) return p + std::countr_zero(mask);
        p += 16;
    }
#else
    if constexpr (std::endian::native == std::endian::little) {
        while (end - p >= 8) {
            std::uint64_t word = loadWord(p);
            std::uint64_t hits = bytesEqual(word, '"') | bytesEqual(word, '\\') | bytesBelow(word, 0x20) | (word & kHighs);
            if (hits != 0) return p + std::countr_zero(hits) / 8;
            p += 8;
        }
    }
#endif
    while (p < end) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) return p;
        ++p;
    }
    return end;
}

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
    while (end - p >= 16) {
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(special(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)))));
        if (mask != 0) return p + std::countr_zero(mask);
        p += 16;
    }
#else
    if constexpr (std::endian::native == std::endian::little) {
        while (end - p >= 8) {
            std::uint64_t word = loadWord(p);
            // Bytes from 0x80 up are never escaped; mask them out of the control test.
            std::uint64_t hits = bytesEqual(word, '"') | bytesEqual(word, '\\') | (bytesBelow(word, 0x20) & ~word);
            if (escapeSlash) hits |= bytesEqual(word, '/');
            if (hits != 0) return p + std::countr_zero(hits) / 8;
            p += 8;
        }
    }
#endif
    while (p < end) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\' || c < 0x20 || (escapeSlash && c == '/')) return p;
        ++p;
    }
    return end;
}

// Length of the well-formed UTF-8 sequence that starts at p (a byte from 0x80 up), or, when it
// is ill-formed, the negated length of its maximal invalid prefix (at least 1 byte). Each such
// prefix becomes one U+FFFD, as WHATWG's decoder (and so Node) does.
inline std::ptrdiff_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) noexcept {
    const unsigned char lead = *p;
    std::ptrdiff_t continuations;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        continuations = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        continuations = 2;
        if (lead == 0xE0) low = 0xA0;      // no overlong forms
        else if (lead == 0xED) high = 0x9F; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        continuations = 3;
        if (lead == 0xF0) low = 0x90;       // no overlong forms
        else if (lead == 0xF4) high = 0x8F; // nothing above U+10FFFF
    } else {
        return -1;
    }
    for (std::ptrdiff_t i = 1; i <= continuations; ++i) {
        if (p + i >= end || p[i] < low || p[i] > high) return -i;
        low = 0x80;
        high = 0xBF;
    }
    return continuations + 1;
}

void appendUtf8(std::string& out, std::uint32_t codePoint) {
    char bytes[4];
    std::size_t length;
    if (codePoint < 0x80) {
        bytes[0] = static_cast<char>(codePoint);
        length = 1;
    } else if (codePoint < 0x800) {
        bytes[0] = static_cast<char>(0xC0 | (codePoint >> 6));
        bytes[1] = static_cast<char>(0x80 | (codePoint & 0x3F));
        length = 2;
    } else if (codePoint < 0x10000) {
        bytes[0] = static_cast<char>(0xE0 | (codePoint >> 12));
        bytes[1] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        bytes[2] = static_cast<char>(0x80 | (codePoint & 0x3F));
        length = 3;
    } else {
        bytes[0] = static_cast<char>(0xF0 | (codePoint >> 18));
        bytes[1] = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        bytes[2] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        bytes[3] = static_cast<char>(0x80 | (codePoint & 0x3F));
        length = 4;
    }
    out.append(bytes, length);
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

// The value of a number that std::from_chars found out of range: the position of its leading
// non-zero digit plus its exponent tells an overflow (an infinity) from an underflow (a zero).
double outOfRangeValue(const char* begin, const char* end) noexcept {
    const char* p = begin;
    const bool negative = *p == '-';
    if (negative) ++p;
    std::int64_t magnitude = 0; // decimal exponent of the leading non-zero digit, plus one
    bool seenNonZero = false;
    bool inFraction = false;
    for (; p < end && (isDigit(*p) || *p == '.'); ++p) {
        if (*p == '.') {
            inFraction = true;
        } else if (!seenNonZero) {
            if (*p != '0') {
                seenNonZero = true;
                if (!inFraction) magnitude = 1;
            } else if (inFraction) {
                --magnitude;
            }
        } else if (!inFraction) {
            if (magnitude < (std::int64_t{1} << 40)) ++magnitude;
        }
    }
    const double zero = negative ? -0.0 : 0.0;
    if (!seenNonZero) return zero;
    std::int64_t exponent = 0;
    if (p < end && (*p == 'e' || *p == 'E')) {
        ++p;
        bool negativeExponent = false;
        if (*p == '+' || *p == '-') negativeExponent = *p++ == '-';
        for (; p < end && isDigit(*p); ++p) {
            if (exponent < (std::int64_t{1} << 40)) exponent = exponent * 10 + (*p - '0');
        }
        if (negativeExponent) exponent = -exponent;
    }
    if (magnitude + exponent > 0) return negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
    return zero;
}

// The value of a number literal as the reader keeps it (NaN and the infinities included).
double literalValue(std::string_view text) noexcept {
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Infinity") return std::numeric_limits<double>::infinity();
    if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc::result_out_of_range) return outOfRangeValue(text.data(), end);
    return error == std::errc() && last == end ? value : std::numeric_limits<double>::quiet_NaN();
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
            for (std::size_t i = 0; i < count; ++i) JsonTreeOps::take(elements[i], children[i]);
            values_.resize(frame.firstValue);
            JsonTreeOps::setArray(values_.emplace_back(), std::move(elements));
            return;
        }
        Json::Object members;
        members.reserve(count);
        const PendingKey* const keys = keys_.data() + frame.firstKey;
        for (std::size_t i = 0; i < count; ++i) {
            const char* name = keys[i].decoded ? decodedKeys_.data() + keys[i].offset : begin_ + keys[i].offset;
            members.push_back(JsonMember{std::string(name, keys[i].size), Json()});
            JsonTreeOps::take(members.back().value, children[i]);
        }
        values_.resize(frame.firstValue);
        keys_.resize(frame.firstKey);
        if (keys_.empty()) decodedKeys_.clear(); // no outer name still points into it
        JsonTreeOps::setObject(values_.emplace_back(), std::move(members));
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
                JsonTreeOps::setString(values_.emplace_back(), start, static_cast<std::size_t>(stop - start));
                p_ = stop + 1;
                return true;
            }
            p_ = stop;
            std::string text;
            if (!readString(text, start)) return false;
            JsonTreeOps::setString(values_.emplace_back(), std::move(text));
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
        if (integral && digitsEnd - digits <= 20) {
            std::uint64_t magnitude = 0;
            bool fits = true;
            for (const char* d = digits; d < digitsEnd; ++d) {
                if (__builtin_mul_overflow(magnitude, 10u, &magnitude) ||
                    __builtin_add_overflow(magnitude, static_cast<unsigned>(*d - '0'), &magnitude)) {
                    fits = false;
                    break;
                }
            }
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
        JsonTreeOps::setString(value, start, static_cast<std::size_t>(p_ - start));
        JsonTreeOps::markLiteral(value);
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

namespace {

// Simple case folding orbits (Unicode CaseFolding.txt, statuses C and S): each code point in a
// run [first, last] (every stride-th one) maps to first member of its orbit by adding delta.
struct FoldRun {
    std::uint32_t first;
    std::uint32_t last;
    std::uint8_t stride;
    std::int32_t delta;
};
constexpr FoldRun kFoldRuns[] = {
    {0x61, 0x7A, 1, -32}, {0xE0, 0xF6, 1, -32}, {0xF8, 0xFE, 1, -32}, {0x101, 0x12F, 2, -1},
    {0x133, 0x137, 2, -1}, {0x13A, 0x148, 2, -1}, {0x14B, 0x177, 2, -1}, {0x178, 0x178, 1, -121},
    {0x17A, 0x17E, 2, -1}, {0x17F, 0x17F, 1, -300}, {0x183, 0x185, 2, -1}, {0x188, 0x188, 1, -1},
    {0x18C, 0x18C, 1, -1}, {0x192, 0x192, 1, -1}, {0x199, 0x199, 1, -1}, {0x1A1, 0x1A5, 2, -1},
    {0x1A8, 0x1A8, 1, -1}, {0x1AD, 0x1AD, 1, -1}, {0x1B0, 0x1B0, 1, -1}, {0x1B4, 0x1B6, 2, -1},
    {0x1B9, 0x1B9, 1, -1}, {0x1BD, 0x1BD, 1, -1}, {0x1C5, 0x1C5, 1, -1}, {0x1C6, 0x1C6, 1, -2},
    {0x1C8, 0x1C8, 1, -1}, {0x1C9, 0x1C9, 1, -2}, {0x1CB, 0x1CB, 1, -1}, {0x1CC, 0x1CC, 1, -2},
    {0x1CE, 0x1DC, 2, -1}, {0x1DD, 0x1DD, 1, -79}, {0x1DF, 0x1EF, 2, -1}, {0x1F2, 0x1F2, 1, -1},
    {0x1F3, 0x1F3, 1, -2}, {0x1F5, 0x1F5, 1, -1}, {0x1F6, 0x1F6, 1, -97}, {0x1F7, 0x1F7, 1, -56},
    {0x1F9, 0x21F, 2, -1}, {0x220, 0x220, 1, -130}, {0x223, 0x233, 2, -1}, {0x23C, 0x23C, 1, -1},
    {0x23D, 0x23D, 1, -163}, {0x242, 0x242, 1, -1}, {0x243, 0x243, 1, -195}, {0x247, 0x24F, 2, -1},
    {0x253, 0x253, 1, -210}, {0x254, 0x254, 1, -206}, {0x256, 0x257, 1, -205}, {0x259, 0x259, 1, -202},
    {0x25B, 0x25B, 1, -203}, {0x260, 0x260, 1, -205}, {0x263, 0x263, 1, -207}, {0x268, 0x268, 1, -209},
    {0x269, 0x269, 1, -211}, {0x26F, 0x26F, 1, -211}, {0x272, 0x272, 1, -213}, {0x275, 0x275, 1, -214},
    {0x280, 0x280, 1, -218}, {0x283, 0x283, 1, -218}, {0x288, 0x288, 1, -218}, {0x289, 0x289, 1, -69},
    {0x28A, 0x28B, 1, -217}, {0x28C, 0x28C, 1, -71}, {0x292, 0x292, 1, -219}, {0x371, 0x373, 2, -1},
    {0x377, 0x377, 1, -1}, {0x399, 0x399, 1, -84}, {0x39C, 0x39C, 1, -743}, {0x3AC, 0x3AC, 1, -38},
    {0x3AD, 0x3AF, 1, -37}, {0x3B1, 0x3B8, 1, -32}, {0x3B9, 0x3B9, 1, -116}, {0x3BA, 0x3BB, 1, -32},
    {0x3BC, 0x3BC, 1, -775}, {0x3BD, 0x3C1, 1, -32}, {0x3C2, 0x3C2, 1, -31}, {0x3C3, 0x3CB, 1, -32},
    {0x3CC, 0x3CC, 1, -64}, {0x3CD, 0x3CE, 1, -63}, {0x3D0, 0x3D0, 1, -62}, {0x3D1, 0x3D1, 1, -57},
    {0x3D5, 0x3D5, 1, -47}, {0x3D6, 0x3D6, 1, -54}, {0x3D7, 0x3D7, 1, -8}, {0x3D9, 0x3EF, 2, -1},
    {0x3F0, 0x3F0, 1, -86}, {0x3F1, 0x3F1, 1, -80}, {0x3F3, 0x3F3, 1, -116}, {0x3F4, 0x3F4, 1, -92},
    {0x3F5, 0x3F5, 1, -96}, {0x3F8, 0x3F8, 1, -1}, {0x3F9, 0x3F9, 1, -7}, {0x3FB, 0x3FB, 1, -1},
    {0x3FD, 0x3FF, 1, -130}, {0x430, 0x44F, 1, -32}, {0x450, 0x45F, 1, -80}, {0x461, 0x481, 2, -1},
    {0x48B, 0x4BF, 2, -1}, {0x4C2, 0x4CE, 2, -1}, {0x4CF, 0x4CF, 1, -15}, {0x4D1, 0x52F, 2, -1},
    {0x561, 0x586, 1, -48}, {0x13F8, 0x13FD, 1, -8}, {0x1C80, 0x1C80, 1, -6254}, {0x1C81, 0x1C81, 1, -6253},
    {0x1C82, 0x1C82, 1, -6244}, {0x1C83, 0x1C84, 1, -6242}, {0x1C85, 0x1C85, 1, -6243},
    {0x1C86, 0x1C86, 1, -6236}, {0x1C87, 0x1C87, 1, -6181}, {0x1C90, 0x1CBA, 1, -3008},
    {0x1CBD, 0x1CBF, 1, -3008}, {0x1E01, 0x1E95, 2, -1}, {0x1E9B, 0x1E9B, 1, -59}, {0x1E9E, 0x1E9E, 1, -7615},
    {0x1EA1, 0x1EFF, 2, -1}, {0x1F08, 0x1F0F, 1, -8}, {0x1F18, 0x1F1D, 1, -8}, {0x1F28, 0x1F2F, 1, -8},
    {0x1F38, 0x1F3F, 1, -8}, {0x1F48, 0x1F4D, 1, -8}, {0x1F59, 0x1F5F, 2, -8}, {0x1F68, 0x1F6F, 1, -8},
    {0x1F88, 0x1F8F, 1, -8}, {0x1F98, 0x1F9F, 1, -8}, {0x1FA8, 0x1FAF, 1, -8}, {0x1FB8, 0x1FB9, 1, -8},
    {0x1FBA, 0x1FBB, 1, -74}, {0x1FBC, 0x1FBC, 1, -9}, {0x1FBE, 0x1FBE, 1, -7289}, {0x1FC8, 0x1FCB, 1, -86},
    {0x1FCC, 0x1FCC, 1, -9}, {0x1FD8, 0x1FD9, 1, -8}, {0x1FDA, 0x1FDB, 1, -100}, {0x1FE8, 0x1FE9, 1, -8},
    {0x1FEA, 0x1FEB, 1, -112}, {0x1FEC, 0x1FEC, 1, -7}, {0x1FF8, 0x1FF9, 1, -128}, {0x1FFA, 0x1FFB, 1, -126},
    {0x1FFC, 0x1FFC, 1, -9}, {0x2126, 0x2126, 1, -7549}, {0x212A, 0x212A, 1, -8415},
    {0x212B, 0x212B, 1, -8294}, {0x214E, 0x214E, 1, -28}, {0x2170, 0x217F, 1, -16}, {0x2184, 0x2184, 1, -1},
    {0x24D0, 0x24E9, 1, -26}, {0x2C30, 0x2C5F, 1, -48}, {0x2C61, 0x2C61, 1, -1}, {0x2C62, 0x2C62, 1, -10743},
    {0x2C63, 0x2C63, 1, -3814}, {0x2C64, 0x2C64, 1, -10727}, {0x2C65, 0x2C65, 1, -10795},
    {0x2C66, 0x2C66, 1, -10792}, {0x2C68, 0x2C6C, 2, -1}, {0x2C6D, 0x2C6D, 1, -10780},
    {0x2C6E, 0x2C6E, 1, -10749}, {0x2C6F, 0x2C6F, 1, -10783}, {0x2C70, 0x2C70, 1, -10782},
    {0x2C73, 0x2C73, 1, -1}, {0x2C76, 0x2C76, 1, -1}, {0x2C7E, 0x2C7F, 1, -10815}, {0x2C81, 0x2CE3, 2, -1},
    {0x2CEC, 0x2CEE, 2, -1}, {0x2CF3, 0x2CF3, 1, -1}, {0x2D00, 0x2D25, 1, -7264}, {0x2D27, 0x2D27, 1, -7264},
    {0x2D2D, 0x2D2D, 1, -7264}, {0xA641, 0xA649, 2, -1}, {0xA64A, 0xA64A, 1, -35266},
    {0xA64B, 0xA64B, 1, -35267}, {0xA64D, 0xA66D, 2, -1}, {0xA681, 0xA69B, 2, -1}, {0xA723, 0xA72F, 2, -1},
    {0xA733, 0xA76F, 2, -1}, {0xA77A, 0xA77C, 2, -1}, {0xA77D, 0xA77D, 1, -35332}, {0xA77F, 0xA787, 2, -1},
    {0xA78C, 0xA78C, 1, -1}, {0xA78D, 0xA78D, 1, -42280}, {0xA791, 0xA793, 2, -1}, {0xA797, 0xA7A9, 2, -1},
    {0xA7AA, 0xA7AA, 1, -42308}, {0xA7AB, 0xA7AB, 1, -42319}, {0xA7AC, 0xA7AC, 1, -42315},
    {0xA7AD, 0xA7AD, 1, -42305}, {0xA7AE, 0xA7AE, 1, -42308}, {0xA7B0, 0xA7B0, 1, -42258},
    {0xA7B1, 0xA7B1, 1, -42282}, {0xA7B2, 0xA7B2, 1, -42261}, {0xA7B5, 0xA7C3, 2, -1},
    {0xA7C4, 0xA7C4, 1, -48}, {0xA7C5, 0xA7C5, 1, -42307}, {0xA7C6, 0xA7C6, 1, -35384},
    {0xA7C8, 0xA7CA, 2, -1}, {0xA7D1, 0xA7D1, 1, -1}, {0xA7D7, 0xA7D9, 2, -1}, {0xA7F6, 0xA7F6, 1, -1},
    {0xAB53, 0xAB53, 1, -928}, {0xAB70, 0xABBF, 1, -38864}, {0xFF41, 0xFF5A, 1, -32},
    {0x10428, 0x1044F, 1, -40}, {0x104D8, 0x104FB, 1, -40}, {0x10597, 0x105A1, 1, -39},
    {0x105A3, 0x105B1, 1, -39}, {0x105B3, 0x105B9, 1, -39}, {0x105BB, 0x105BC, 1, -39},
    {0x10CC0, 0x10CF2, 1, -64}, {0x118C0, 0x118DF, 1, -32}, {0x16E60, 0x16E7F, 1, -32},
    {0x1E922, 0x1E943, 1, -34},
};

std::uint32_t foldCodePoint(std::uint32_t c) noexcept {
    if (c < 0x80) return c >= 'a' && c <= 'z' ? c - 32 : c;
    const FoldRun* run = std::upper_bound(std::begin(kFoldRuns), std::end(kFoldRuns), c,
                                          [](std::uint32_t value, const FoldRun& r) { return value < r.first; });
    if (run == std::begin(kFoldRuns)) return c;
    --run;
    if (c > run->last || (c - run->first) % run->stride != 0) return c;
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(c) + run->delta);
}

} // namespace

std::string foldedName(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    const auto* p = reinterpret_cast<const unsigned char*>(name.data());
    const auto* const end = p + name.size();
    while (p < end) {
        if (*p < 0x80) {
            out.push_back(static_cast<char>(foldCodePoint(*p++)));
            continue;
        }
        const std::ptrdiff_t length = utf8SequenceLength(p, end);
        std::uint32_t c = 0xFFFD;
        if (length > 0) {
            c = length == 2 ? (p[0] & 0x1Fu) : length == 3 ? (p[0] & 0x0Fu) : (p[0] & 0x07u);
            for (std::ptrdiff_t i = 1; i < length; ++i) c = c << 6 | (p[i] & 0x3Fu);
        }
        p += length > 0 ? length : -length;
        appendUtf8(out, foldCodePoint(c));
    }
    return out;
}

} // namespace sentrova
