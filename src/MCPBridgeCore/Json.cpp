#include "MCPBridgeCore/Json.hpp"

#include <bit>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>

namespace sentrova {

namespace {

bool isStringLike(JsonTag tag) noexcept {
    return tag == JsonTag::string || tag == JsonTag::longString || tag == JsonTag::numberText ||
           tag == JsonTag::longNumberText;
}

// Appends a copy of the value at `at` in `from` to `to`: container ends move with the new
// position, string bytes are copied into to's store.
void appendCopy(JsonDocument& to, const JsonDocument& from, std::size_t at) {
    const std::size_t end = from.next(at);
    const std::size_t base = to.tape.size();
    to.tape.reserve(base + (end - at));
    for (std::size_t i = at; i < end; ++i) {
        const std::uint64_t w = from.tape[i];
        const JsonTag tag = JsonDocument::tag(w);
        if (tag == JsonTag::array || tag == JsonTag::object) {
            to.tape.push_back(JsonDocument::word(tag, JsonDocument::fieldA(w) - at + base, JsonDocument::fieldB(w)));
        } else if (isStringLike(tag)) {
            const std::string_view text = from.text(i);
            const std::size_t offset = to.strings.size();
            to.strings.append(text);
            to.addText(tag == JsonTag::string || tag == JsonTag::longString ? JsonTag::string : JsonTag::numberText,
                       offset, text.size());
            if (JsonDocument::hasSecondWord(tag)) ++i;
        } else {
            to.tape.push_back(w);
            if (JsonDocument::hasSecondWord(tag)) to.tape.push_back(from.tape[++i]);
        }
    }
}

void appendValue(JsonDocument& to, const Json& value) {
    if (value.document() == nullptr) {
        to.tape.push_back(JsonDocument::word(JsonTag::null, 0, 0));
    } else {
        appendCopy(to, *value.document(), value.position());
    }
}

Json scalar(std::uint64_t word, std::optional<std::uint64_t> second = std::nullopt) {
    auto doc = std::make_shared<JsonDocument>();
    doc->tape.push_back(word);
    if (second) doc->tape.push_back(*second);
    return Json(std::move(doc), 0);
}

// A container word that says where its contents end, once they are all in.
void closeContainer(JsonDocument& doc, std::size_t at, std::size_t count) {
    doc.tape[at] = JsonDocument::word(JsonDocument::tag(doc.tape[at]), doc.tape.size(),
                                      std::min<std::size_t>(count, kJsonCountSaturated));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The document

std::size_t JsonDocument::count(std::size_t at) const noexcept {
    const std::uint64_t w = tape[at];
    if (fieldB(w) != kJsonCountSaturated) return fieldB(w);
    const bool isObject = tag(w) == JsonTag::object;
    std::size_t count = 0;
    for (std::size_t i = at + 1; i < fieldA(w); i = next(isObject ? i + 1 : i)) ++count;
    return count;
}

void JsonDocument::addText(JsonTag shortTag, std::size_t offset, std::size_t size) {
    if (size < kJsonCountSaturated) {
        tape.push_back(word(shortTag, offset, size));
        return;
    }
    tape.push_back(word(shortTag == JsonTag::string ? JsonTag::longString : JsonTag::longNumberText, offset, 0));
    tape.push_back(size);
}

// ---------------------------------------------------------------------------------------------
// Values

Json Json::null() { return {}; }
Json Json::boolean(bool value) { return scalar(JsonDocument::word(value ? JsonTag::trueValue : JsonTag::falseValue, 0, 0)); }

Json Json::integer(std::int64_t value) {
    if (JsonDocument::fitsSmall(value)) return scalar(JsonDocument::smallIntegerWord(value));
    return scalar(JsonDocument::word(JsonTag::integer, 0, 0), static_cast<std::uint64_t>(value));
}

Json Json::unsignedInteger(std::uint64_t value) { return scalar(JsonDocument::word(JsonTag::unsignedInteger, 0, 0), value); }
Json Json::real(double value) { return scalar(JsonDocument::word(JsonTag::real, 0, 0), std::bit_cast<std::uint64_t>(value)); }

Json Json::string(std::string_view value) {
    auto doc = std::make_shared<JsonDocument>();
    doc->strings.assign(value);
    doc->addText(JsonTag::string, 0, value.size());
    return Json(std::move(doc), 0);
}

Json Json::array() { return array(Array()); }

Json Json::array(const Array& elements) {
    auto doc = std::make_shared<JsonDocument>();
    doc->tape.push_back(JsonDocument::word(JsonTag::array, 0, 0));
    for (const Json& element : elements) appendValue(*doc, element);
    closeContainer(*doc, 0, elements.size());
    return Json(std::move(doc), 0);
}

Json Json::object() { return object(Object()); }

Json Json::object(const Object& members) {
    auto doc = std::make_shared<JsonDocument>();
    doc->tape.push_back(JsonDocument::word(JsonTag::object, 0, 0));
    for (const JsonMember& member : members) {
        const std::size_t offset = doc->strings.size();
        doc->strings.append(member.key);
        doc->addText(JsonTag::string, offset, member.key.size());
        appendValue(*doc, member.value);
    }
    closeContainer(*doc, 0, members.size());
    return Json(std::move(doc), 0);
}

Json Json::standalone() const {
    if (!doc_ || (at_ == 0 && doc_->next(0) == doc_->tape.size())) return *this;
    auto doc = std::make_shared<JsonDocument>();
    appendCopy(*doc, *doc_, at_);
    return Json(std::move(doc), 0);
}

Json::Type Json::type() const noexcept {
    switch (tag()) {
    case JsonTag::null: return Type::null;
    case JsonTag::falseValue:
    case JsonTag::trueValue: return Type::boolean;
    case JsonTag::smallInteger:
    case JsonTag::integer: return Type::integer;
    case JsonTag::unsignedInteger: return Type::unsignedInteger;
    case JsonTag::real:
    case JsonTag::numberText:
    case JsonTag::longNumberText: return Type::real;
    case JsonTag::string:
    case JsonTag::longString: return Type::string;
    case JsonTag::array: return Type::array;
    case JsonTag::object: return Type::object;
    }
    return Type::null;
}

bool Json::isNumber() const noexcept { return isBool() || isNumberLiteral(); }

bool Json::isNumberLiteral() const noexcept {
    const Type t = type();
    return t == Type::integer || t == Type::unsignedInteger || t == Type::real;
}

bool Json::boolValue() const noexcept { return tag() == JsonTag::trueValue; }

std::int64_t Json::intValue() const noexcept {
    switch (tag()) {
    case JsonTag::smallInteger: return JsonDocument::smallIntegerValue(word());
    case JsonTag::integer: return static_cast<std::int64_t>(doc_->tape[at_ + 1]);
    default: return 0;
    }
}

std::uint64_t Json::uintValue() const noexcept { return tag() == JsonTag::unsignedInteger ? doc_->tape[at_ + 1] : 0; }

double Json::realValue() const noexcept {
    switch (tag()) {
    case JsonTag::real: return std::bit_cast<double>(doc_->tape[at_ + 1]);
    case JsonTag::numberText:
    case JsonTag::longNumberText: return jsonLiteralValue(doc_->text(at_));
    default: return 0.0;
    }
}

std::string_view Json::numberText() const noexcept {
    const JsonTag t = tag();
    return t == JsonTag::numberText || t == JsonTag::longNumberText ? doc_->text(at_) : std::string_view();
}

std::optional<double> Json::numberValue() const noexcept {
    switch (type()) {
    case Type::boolean: return boolValue() ? 1.0 : 0.0;
    case Type::integer: return static_cast<double>(intValue());
    case Type::unsignedInteger: return static_cast<double>(uintValue());
    case Type::real: return realValue();
    default: return std::nullopt;
    }
}

std::string_view Json::stringValue() const noexcept { return isString() ? doc_->text(at_) : std::string_view(); }

JsonArrayView Json::arrayValue() const { return isArray() ? JsonArrayView(doc_, at_) : JsonArrayView(); }

JsonObjectView Json::objectValue() const { return isObject() ? JsonObjectView(doc_, at_) : JsonObjectView(); }

std::optional<Json> Json::find(std::string_view key) const {
    if (!isObject()) return std::nullopt;
    std::optional<std::size_t> found;
    const std::size_t end = doc_->next(at_);
    for (std::size_t i = at_ + 1; i < end; i = doc_->next(i + 1)) {
        if (doc_->text(i) == key) found = i + 1;
    }
    if (!found) return std::nullopt;
    return Json(doc_, *found);
}

namespace {

bool sameScalar(const Json& a, const Json& b) noexcept {
    switch (a.type()) {
    case Json::Type::null: return true;
    case Json::Type::boolean: return a.boolValue() == b.boolValue();
    case Json::Type::integer: return a.intValue() == b.intValue();
    case Json::Type::unsignedInteger: return a.uintValue() == b.uintValue();
    case Json::Type::real: { // a literal and a double compare by value
        const double x = a.realValue();
        const double y = b.realValue();
        return x == y || (std::isnan(x) && std::isnan(y));
    }
    case Json::Type::string: return a.stringValue() == b.stringValue();
    default: return false;
    }
}

} // namespace

// Both tapes list their values in the same order when the values are equal, so one walk over
// the two compares them at any depth: each container's count, each key and each scalar.
bool operator==(const Json& a, const Json& b) {
    if (a.type() != b.type()) return false;
    if (!a.doc_ || !b.doc_) return true; // both null
    const JsonDocument& x = *a.doc_;
    const JsonDocument& y = *b.doc_;
    const std::size_t end = x.next(a.at_);
    std::size_t i = a.at_;
    std::size_t j = b.at_;
    while (i < end) {
        const Json u(a.doc_, i);
        const Json v(b.doc_, j);
        if (u.type() != v.type()) return false;
        if (u.isArray() || u.isObject()) {
            if (x.count(i) != y.count(j)) return false;
            ++i;
            ++j;
        } else {
            if (!sameScalar(u, v)) return false;
            i = x.next(i);
            j = y.next(j);
        }
    }
    return true;
}

// The value of a number literal as the reader keeps it (NaN and the infinities included).
// from_chars refuses a literal beyond the double range; strtod_l then gives the infinity or the
// zero (with its sign) that every server's reader gives.
double jsonLiteralValue(std::string_view text) noexcept {
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Infinity") return std::numeric_limits<double>::infinity();
    if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc() && last == end) return value;
    if (error != std::errc::result_out_of_range) return std::numeric_limits<double>::quiet_NaN();
    static const locale_t posix = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    const std::string terminated(text); // strtod_l reads up to a NUL
    return strtod_l(terminated.c_str(), nullptr, posix);
}

} // namespace sentrova
