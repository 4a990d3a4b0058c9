#pragma once

// JSON value model, the tolerant reader and the canonical writer.
//
// The reader accepts a superset of what mainstream server parsers (Node's JSON.parse,
// Python's json, Go's encoding/json) accept, because a line the bridge cannot read is
// relayed unchanged: anything a server would execute must be readable here.

#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sentrova {

class Json;

struct JsonMember;

class Json {
public:
    // numberText is internal: a number read from text that is not a plain 64-bit integer keeps
    // its own text (so ids, tokens and big integers can be written back with the client's
    // digits); type() reports it as real.
    enum class Type : std::uint8_t { null, boolean, integer, unsignedInteger, real, string, array, object, numberText };

    using Array = std::vector<Json>;
    using Object = std::vector<JsonMember>; // every member, in input order (duplicates kept)

    Json() noexcept : u_(0) {} // null
    // Iterative: destroying a deeply nested value never recurses. Scalars need no work, which
    // the inline test settles without a call.
    ~Json() {
        if (type_ >= Type::string) destroy();
    }
    Json(const Json& other);
    Json(Json&& other) noexcept : u_(0) { moveFrom(std::move(other)); }
    Json& operator=(const Json& other);
    Json& operator=(Json&& other) noexcept;

    static Json null();
    static Json boolean(bool value);
    static Json integer(std::int64_t value);
    static Json unsignedInteger(std::uint64_t value); // only for values above INT64_MAX
    static Json real(double value);
    static Json string(std::string value);
    // Overloads rather than default arguments: JsonMember is not yet complete here.
    static Json array();
    static Json array(Array elements);
    static Json object();
    static Json object(Object members);

    Type type() const noexcept { return type_ == Type::numberText ? Type::real : type_; }
    bool isNull() const noexcept { return type_ == Type::null; }
    bool isBool() const noexcept { return type_ == Type::boolean; }
    bool isString() const noexcept { return type_ == Type::string; }
    bool isArray() const noexcept { return type_ == Type::array; }
    bool isObject() const noexcept { return type_ == Type::object; }
    // A JSON number; booleans count as numbers (1 and 0), as every numeric read of the bridge expects.
    bool isNumber() const noexcept;
    // True only for integer, unsignedInteger and real (not booleans).
    bool isNumberLiteral() const noexcept;

    bool boolValue() const noexcept;            // only meaningful for booleans
    std::int64_t intValue() const noexcept;     // only meaningful for integer
    std::uint64_t uintValue() const noexcept;   // only meaningful for unsignedInteger
    double realValue() const noexcept;          // only meaningful for real
    // The number's own text when it was read from JSON and is not a plain 64-bit integer; else empty.
    std::string_view numberText() const noexcept;
    // The numeric value of a number or boolean (true 1, false 0); nullopt for anything else.
    std::optional<double> numberValue() const noexcept;

    const std::string& stringValue() const noexcept; // only meaningful for strings
    const Array& arrayValue() const noexcept;        // only meaningful for arrays
    const Object& objectValue() const noexcept;      // only meaningful for objects

    // Object lookup: the last member with exactly this key, or nullptr (also for non-objects).
    const Json* find(std::string_view key) const noexcept;

    // Structural equality; numbers compare by kind and value; objects member by member in order.
    friend bool operator==(const Json& a, const Json& b);

private:
    friend class JsonTreeOps; // iterative copy, destruction and comparison of whole trees

    void destroy() noexcept;
    void copyFrom(const Json& other);

    // Takes other's value into this value, which holds none (null); other is left null.
    void moveFrom(Json&& other) noexcept;

    // Strings and containers live inline: a short string (up to 15 bytes) or an empty container
    // costs no allocation, and every other one a single allocation for its contents.
    Type type_ = Type::null;
    union {
        bool b_;
        std::int64_t i_;
        std::uint64_t u_;
        double d_;
        std::string s_;
        Array a_;
        Object o_;
    };
};

struct JsonMember {
    std::string key;
    Json value;
    friend bool operator==(const JsonMember& a, const JsonMember& b) { return a.key == b.key && a.value == b.value; }
};

// Defined here, where JsonMember is complete, because every move goes through it.
inline void Json::moveFrom(Json&& other) noexcept {
    switch (other.type_) {
    case Type::string:
    case Type::numberText:
        new (&s_) std::string(std::move(other.s_));
        other.s_.~basic_string();
        break;
    case Type::array:
        new (&a_) Array(std::move(other.a_));
        other.a_.~Array();
        break;
    case Type::object:
        new (&o_) Object(std::move(other.o_));
        other.o_.~Object();
        break;
    default:
        u_ = other.u_;
        break;
    }
    type_ = other.type_;
    other.type_ = Type::null;
    other.u_ = 0;
}

// The tolerant reader. The top level must be an object or an array, followed only by
// whitespace (space, tab, CR, LF). A leading UTF-8 BOM is skipped. Invalid UTF-8 and lone
// surrogate escapes inside strings become U+FFFD; numbers of any size are read (int64 or
// uint64 when they fit exactly, else double, overflow to an infinity); NaN, Infinity and
// -Infinity are numbers; nesting depth is unlimited. nullopt when the text is refused.
// A number without fraction or exponent is an integer when it fits ("-0" is the integer 0);
// any other number is a real ("1.0" stays the real 1, "-0.0" the real -0).
// Invalid UTF-8 is replaced per maximal ill-formed subsequence, as WHATWG's decoder does.
std::optional<Json> parseJson(std::string_view text);

struct JsonWriteOptions {
    bool escapeSlash = false; // write "/" as "\/" (only the tool pin input asks for this)
    // Write every number read from text exactly as it was read (ids and progress tokens go back
    // to the client in its own spelling); NaN and the infinities still fail.
    bool verbatimNumbers = false;
};

// The canonical writer: compact, keys of every object sorted (see jsonKeyLess; duplicate keys
// all written, in their order), UTF-8 unescaped, any depth (no recursion). Integers read from
// text keep all their digits, however many; a real that is integral and below 2^53 in magnitude
// is written as an integer (1.0 as 1, -0.0 as 0); other reals in the shortest text that reads
// back to the same double. nullopt when the value holds a non-finite number (NaN, an infinity,
// or a literal beyond the double range such as 1e400), so that each caller's fallback applies.
std::optional<std::string> writeJson(const Json& value, JsonWriteOptions options = {});

// Appends the canonical text of a string value (with its quotes) to out.
void appendJsonString(std::string& out, std::string_view text, JsonWriteOptions options = {});

// Sorted-key order of the canonical writer: case-insensitive comparison, runs of ASCII
// digits compared by numeric value, remaining ties broken by plain byte order.
bool jsonKeyLess(std::string_view a, std::string_view b) noexcept;

// A member name under Unicode simple case folding, as Go's encoding/json matches names (the
// last case-insensitive match wins there): two names that give the same text name the same
// field for such a server ("Path" and "path", "\u00e9" and "\u00c9", U+212A KELVIN SIGN and "k").
// Ill-formed UTF-8 counts as U+FFFD.
std::string foldedName(std::string_view name);

} // namespace sentrova
