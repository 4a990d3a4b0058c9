#pragma once

// The JSON value model. The reader (JsonReader.hpp) and the canonical writer (JsonWriter.hpp)
// come with it.

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
    friend class JsonTreeOps;    // iterative copy, destruction and comparison of whole trees
    friend struct JsonNodeAccess; // the reader fills values in place

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

} // namespace sentrova

#include "MCPBridgeCore/JsonReader.hpp"
#include "MCPBridgeCore/JsonWriter.hpp"
