#pragma once

// The JSON value model. The reader (JsonReader.hpp) and the canonical writer (JsonWriter.hpp)
// come with it.
//
// A value lives in an immutable document: one flat tape of 8-byte words in document order and
// one store of string bytes. A Json is a shared handle on a document and a position in it, so
// copying one is cheap and a value read from a line costs a few bytes per token, at any depth:
// a line of twenty million brackets takes eighty megabytes, not a node per bracket.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace sentrova {

class Json;
struct JsonMember;

// The tape. A word holds a tag in its top 4 bits, a 40-bit field A and a 20-bit field B.
// Containers: A is the index just past their last descendant, B their count of elements or
// members (saturated at kJsonCountSaturated: counted by walking). An object's members are a
// key (a string word) followed by the value. Strings and number texts: A is the offset of
// their bytes in the store and B their length; the long forms keep the length in a second
// word. Integers that need more than 60 bits, unsigned integers and doubles keep the value in
// a second word.
enum class JsonTag : std::uint8_t {
    null, falseValue, trueValue, smallInteger, integer, unsignedInteger, real,
    string, longString, numberText, longNumberText, array, object,
};

inline constexpr std::uint64_t kJsonFieldA = (std::uint64_t{1} << 40) - 1;
inline constexpr std::uint64_t kJsonCountSaturated = (std::uint64_t{1} << 20) - 1;

struct JsonDocument {
    std::vector<std::uint64_t> tape;
    std::string strings;

    static JsonTag tag(std::uint64_t word) noexcept { return static_cast<JsonTag>(word >> 60); }
    static std::uint64_t fieldA(std::uint64_t word) noexcept { return word & kJsonFieldA; }
    static std::uint64_t fieldB(std::uint64_t word) noexcept { return (word >> 40) & kJsonCountSaturated; }
    static std::uint64_t word(JsonTag tag, std::uint64_t a, std::uint64_t b) noexcept {
        return static_cast<std::uint64_t>(tag) << 60 | (b & kJsonCountSaturated) << 40 | (a & kJsonFieldA);
    }
    // Integers of 60 bits, two's complement, fill the word below the tag.
    static bool fitsSmall(std::int64_t value) noexcept {
        return value >= -(std::int64_t{1} << 59) && value < (std::int64_t{1} << 59);
    }
    static std::uint64_t smallIntegerWord(std::int64_t value) noexcept {
        return static_cast<std::uint64_t>(JsonTag::smallInteger) << 60 |
               (static_cast<std::uint64_t>(value) & ((std::uint64_t{1} << 60) - 1));
    }
    static std::int64_t smallIntegerValue(std::uint64_t word) noexcept {
        return static_cast<std::int64_t>(word << 4) >> 4;
    }
    static bool hasSecondWord(JsonTag tag) noexcept {
        return tag == JsonTag::integer || tag == JsonTag::unsignedInteger || tag == JsonTag::real ||
               tag == JsonTag::longString || tag == JsonTag::longNumberText;
    }

    // The index just past the value at `at`.
    std::size_t next(std::size_t at) const noexcept {
        const JsonTag t = tag(tape[at]);
        if (t == JsonTag::array || t == JsonTag::object) return fieldA(tape[at]);
        return at + (hasSecondWord(t) ? 2 : 1);
    }
    // The bytes of the string or number text at `at`.
    std::string_view text(std::size_t at) const noexcept {
        const std::uint64_t w = tape[at];
        const JsonTag t = tag(w);
        const std::size_t size = t == JsonTag::longString || t == JsonTag::longNumberText ? tape[at + 1] : fieldB(w);
        return std::string_view(strings).substr(fieldA(w), size);
    }
    // The number of elements or members of the container at `at`.
    std::size_t count(std::size_t at) const noexcept;

    // Appends string-like bytes already in the store at `offset` as one value.
    void addText(JsonTag shortTag, std::size_t offset, std::size_t size);
};

// The elements of an array (Item Json) or the members of an object (Item JsonMemberView), in
// order, duplicates kept; empty for anything else. Defined below, once its items are complete.
template <typename Item>
class JsonRange;
struct JsonMemberView;
using JsonArrayView = JsonRange<Json>;
using JsonObjectView = JsonRange<JsonMemberView>;

class Json {
public:
    // A number read from text that is not a plain 64-bit integer keeps its own text (so ids,
    // tokens and big integers can be written back with the client's digits); its type is real.
    enum class Type : std::uint8_t { null, boolean, integer, unsignedInteger, real, string, array, object };

    // What the value builders take.
    using Array = std::vector<Json>;
    using Object = std::vector<JsonMember>; // every member, in order (duplicates kept)

    Json() noexcept = default; // null
    Json(std::shared_ptr<const JsonDocument> doc, std::size_t at) noexcept : doc_(std::move(doc)), at_(at) {}

    static Json null();
    static Json boolean(bool value);
    static Json integer(std::int64_t value);
    static Json unsignedInteger(std::uint64_t value); // only for values above INT64_MAX
    static Json real(double value);
    static Json string(std::string_view value);
    // Overloads rather than default arguments: JsonMember is not yet complete here.
    static Json array();
    static Json array(const Array& elements);
    static Json object();
    static Json object(const Object& members);

    // This value in a document of its own, so that keeping it does not keep the whole line it
    // was read from.
    Json standalone() const;

    Type type() const noexcept;
    bool isNull() const noexcept { return tag() == JsonTag::null; }
    bool isBool() const noexcept { return tag() == JsonTag::falseValue || tag() == JsonTag::trueValue; }
    bool isString() const noexcept { return tag() == JsonTag::string || tag() == JsonTag::longString; }
    bool isArray() const noexcept { return tag() == JsonTag::array; }
    bool isObject() const noexcept { return tag() == JsonTag::object; }
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

    std::string_view stringValue() const noexcept; // only meaningful for strings
    JsonArrayView arrayValue() const;               // empty for anything but an array
    JsonObjectView objectValue() const;             // empty for anything but an object

    // Object lookup: the last member with exactly this key, or nullopt (also for non-objects).
    std::optional<Json> find(std::string_view key) const;

    // Structural equality; numbers compare by kind and value; objects member by member in order.
    friend bool operator==(const Json& a, const Json& b);

    // The document and position, for the writer and for copying into another document.
    const JsonDocument* document() const noexcept { return doc_.get(); }
    std::size_t position() const noexcept { return at_; }

private:
    JsonTag tag() const noexcept { return doc_ ? JsonDocument::tag(doc_->tape[at_]) : JsonTag::null; }
    std::uint64_t word() const noexcept { return doc_->tape[at_]; }

    std::shared_ptr<const JsonDocument> doc_; // null for the null value
    std::size_t at_ = 0;
};

// The value of a number literal as the reader keeps it (NaN and the infinities included).
double jsonLiteralValue(std::string_view text) noexcept;

struct JsonMember {
    std::string key;
    Json value;
};

// One member of an object as read: its key and its value.
struct JsonMemberView {
    std::string_view key;
    Json value;
};

template <typename Item>
class JsonRange {
    static constexpr bool kMembers = std::is_same_v<Item, JsonMemberView>;

public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Item;
        using difference_type = std::ptrdiff_t;
        iterator() = default;
        iterator(const std::shared_ptr<const JsonDocument>* doc, std::size_t at) : doc_(doc), at_(at) {}
        Item operator*() const {
            if constexpr (kMembers) {
                return JsonMemberView{(*doc_)->text(at_), Json(*doc_, at_ + 1)};
            } else {
                return Json(*doc_, at_);
            }
        }
        iterator& operator++() {
            at_ = (*doc_)->next(kMembers ? at_ + 1 : at_); // a member is its key and then its value
            return *this;
        }
        iterator operator++(int) {
            iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(const iterator& a, const iterator& b) noexcept { return a.at_ == b.at_; }

    private:
        const std::shared_ptr<const JsonDocument>* doc_ = nullptr;
        std::size_t at_ = 0;
    };

    JsonRange() = default;
    // The container at `at` of doc.
    JsonRange(std::shared_ptr<const JsonDocument> doc, std::size_t at)
        : doc_(std::move(doc)), begin_(at + 1), end_(doc_->next(at)), size_(doc_->count(at)) {}
    iterator begin() const { return iterator(&doc_, begin_); }
    iterator end() const { return iterator(&doc_, end_); }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    Item operator[](std::size_t index) const { // index < size()
        iterator it = begin();
        for (; index > 0; --index) ++it;
        return *it;
    }

private:
    std::shared_ptr<const JsonDocument> doc_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t size_ = 0;
};

} // namespace sentrova

#include "MCPBridgeCore/JsonReader.hpp"
#include "MCPBridgeCore/JsonWriter.hpp"
