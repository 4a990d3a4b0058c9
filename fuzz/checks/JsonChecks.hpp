#pragma once

// Properties of the JSON reader and writer, shared by the fuzz target and the regression replay.
//
// Each check returns an empty string when the input behaves, else a description of the fault.
//
// 1. Superset: whatever a mainstream server parser would read (RFC 8259 plus the extras that
//    Node, Python or Go take: NaN/Infinity, a BOM, invalid UTF-8, lone surrogate escapes, any
//    number size) the reader must read too, and to the same value (last duplicate wins).
// 2. Round trip: whatever the reader accepts and the writer writes reads back to an equal value.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova::fuzzcheck {

// ---------------------------------------------------------------------------------------------
// Reference reader: deliberately simple and recursive (bounded depth), written from the grammar
// and from what Node's Buffer.toString + JSON.parse do with bytes, not from the bridge's reader.

class ReferenceJsonReader {
public:
    static constexpr int kMaxDepth = 200;

    // nullopt when refused; `tooDeep` is set when the text nests deeper than this reader goes.
    static std::optional<Json> read(std::string_view text, bool& tooDeep) {
        ReferenceJsonReader reader(text);
        tooDeep = false;
        if (reader.text_.substr(0, 3) == "\xEF\xBB\xBF") reader.pos_ = 3;
        reader.skipWhitespace();
        if (reader.atEnd() || (reader.peek() != '{' && reader.peek() != '[')) return std::nullopt;
        auto value = reader.value(0);
        tooDeep = reader.tooDeep_;
        if (!value) return std::nullopt;
        reader.skipWhitespace();
        if (!reader.atEnd()) return std::nullopt;
        return value;
    }

    // Decodes bytes as UTF-8, replacing each maximal invalid subpart by U+FFFD (the WHATWG
    // decoder that Node's Buffer.toString uses).
    static void appendDecodedUtf8(std::string& out, std::string_view bytes) {
        std::size_t i = 0;
        while (i < bytes.size()) {
            const auto c = static_cast<unsigned char>(bytes[i]);
            if (c < 0x80) {
                out.push_back(static_cast<char>(c));
                ++i;
                continue;
            }
            int need = 0;
            unsigned char lower = 0x80, upper = 0xBF;
            if (c >= 0xC2 && c <= 0xDF) {
                need = 1;
            } else if (c >= 0xE0 && c <= 0xEF) {
                need = 2;
                if (c == 0xE0) lower = 0xA0;
                if (c == 0xED) upper = 0x9F;
            } else if (c >= 0xF0 && c <= 0xF4) {
                need = 3;
                if (c == 0xF0) lower = 0x90;
                if (c == 0xF4) upper = 0x8F;
            } else {
                out += "\xEF\xBF\xBD";
                ++i;
                continue;
            }
            std::size_t j = i + 1;
            int got = 0;
            while (got < need && j < bytes.size()) {
                const auto d = static_cast<unsigned char>(bytes[j]);
                if (d < lower || d > upper) break;
                lower = 0x80;
                upper = 0xBF;
                ++j;
                ++got;
            }
            if (got == need) {
                out.append(bytes.substr(i, j - i));
            } else {
                out += "\xEF\xBF\xBD";
            }
            i = j;
        }
    }

private:
    explicit ReferenceJsonReader(std::string_view text) : text_(text) {}

    bool atEnd() const { return pos_ >= text_.size(); }
    char peek() const { return text_[pos_]; }
    bool consume(std::string_view word) {
        if (text_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }
    void skipWhitespace() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++pos_;
    }

    std::optional<Json> value(int depth) {
        if (depth > kMaxDepth) {
            tooDeep_ = true;
            return std::nullopt;
        }
        skipWhitespace();
        if (atEnd()) return std::nullopt;
        const char c = peek();
        if (c == '{') return object(depth);
        if (c == '[') return array(depth);
        if (c == '"') {
            auto s = string();
            if (!s) return std::nullopt;
            return Json::string(std::move(*s));
        }
        if (consume("true")) return Json::boolean(true);
        if (consume("false")) return Json::boolean(false);
        if (consume("null")) return Json::null();
        if (consume("NaN")) return Json::real(std::nan(""));
        if (consume("Infinity")) return Json::real(HUGE_VAL);
        if (consume("-Infinity")) return Json::real(-HUGE_VAL);
        return number();
    }

    std::optional<Json> object(int depth) {
        ++pos_;
        Json::Object members;
        skipWhitespace();
        if (!atEnd() && peek() == '}') {
            ++pos_;
            return Json::object(std::move(members));
        }
        for (;;) {
            skipWhitespace();
            if (atEnd() || peek() != '"') return std::nullopt;
            auto key = string();
            if (!key) return std::nullopt;
            skipWhitespace();
            if (atEnd() || peek() != ':') return std::nullopt;
            ++pos_;
            auto v = value(depth + 1);
            if (!v) return std::nullopt;
            members.push_back(JsonMember{std::move(*key), std::move(*v)});
            skipWhitespace();
            if (atEnd()) return std::nullopt;
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            if (peek() == '}') {
                ++pos_;
                return Json::object(std::move(members));
            }
            return std::nullopt;
        }
    }

    std::optional<Json> array(int depth) {
        ++pos_;
        Json::Array elements;
        skipWhitespace();
        if (!atEnd() && peek() == ']') {
            ++pos_;
            return Json::array(std::move(elements));
        }
        for (;;) {
            auto v = value(depth + 1);
            if (!v) return std::nullopt;
            elements.push_back(std::move(*v));
            skipWhitespace();
            if (atEnd()) return std::nullopt;
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            if (peek() == ']') {
                ++pos_;
                return Json::array(std::move(elements));
            }
            return std::nullopt;
        }
    }

    static void appendCodePoint(std::string& out, std::uint32_t cp) {
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }

    std::optional<std::uint32_t> hex4() {
        if (pos_ + 4 > text_.size()) return std::nullopt;
        std::uint32_t v = 0;
        for (int k = 0; k < 4; ++k) {
            const char h = text_[pos_ + k];
            v <<= 4;
            if (h >= '0' && h <= '9') v |= static_cast<std::uint32_t>(h - '0');
            else if (h >= 'a' && h <= 'f') v |= static_cast<std::uint32_t>(h - 'a' + 10);
            else if (h >= 'A' && h <= 'F') v |= static_cast<std::uint32_t>(h - 'A' + 10);
            else return std::nullopt;
        }
        pos_ += 4;
        return v;
    }

    // A string token; raw bytes are decoded as UTF-8 with replacement, escapes as JSON says;
    // a lone surrogate escape becomes U+FFFD.
    std::optional<std::string> string() {
        ++pos_;
        std::string out;
        std::size_t runStart = pos_;
        auto flushRun = [&] { appendDecodedUtf8(out, text_.substr(runStart, pos_ - runStart)); };
        for (;;) {
            if (atEnd()) return std::nullopt;
            const auto c = static_cast<unsigned char>(peek());
            if (c == '"') {
                flushRun();
                ++pos_;
                return out;
            }
            if (c < 0x20) return std::nullopt;
            if (c != '\\') {
                ++pos_;
                continue;
            }
            flushRun();
            ++pos_;
            if (atEnd()) return std::nullopt;
            const char e = peek();
            ++pos_;
            switch (e) {
            case '"': out.push_back('"'); break;
            case '\\': out.push_back('\\'); break;
            case '/': out.push_back('/'); break;
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case 'u': {
                auto u = hex4();
                if (!u) return std::nullopt;
                std::uint32_t cp = *u;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    const std::size_t save = pos_;
                    if (consume("\\u")) {
                        auto lo = hex4();
                        if (!lo) return std::nullopt;
                        if (*lo >= 0xDC00 && *lo <= 0xDFFF) {
                            cp = 0x10000 + ((cp - 0xD800) << 10) + (*lo - 0xDC00);
                        } else {
                            pos_ = save; // the next escape stands on its own
                            cp = 0xFFFD;
                        }
                    } else {
                        cp = 0xFFFD;
                    }
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    cp = 0xFFFD;
                }
                appendCodePoint(out, cp);
                break;
            }
            default: return std::nullopt;
            }
            runStart = pos_;
        }
    }

    std::optional<Json> number() {
        const std::size_t start = pos_;
        if (!atEnd() && peek() == '-') ++pos_;
        if (atEnd()) return std::nullopt;
        if (peek() == '0') {
            ++pos_;
        } else if (peek() >= '1' && peek() <= '9') {
            while (!atEnd() && peek() >= '0' && peek() <= '9') ++pos_;
        } else {
            return std::nullopt;
        }
        bool integral = true;
        if (!atEnd() && peek() == '.') {
            integral = false;
            ++pos_;
            const std::size_t digits = pos_;
            while (!atEnd() && peek() >= '0' && peek() <= '9') ++pos_;
            if (pos_ == digits) return std::nullopt;
        }
        if (!atEnd() && (peek() == 'e' || peek() == 'E')) {
            integral = false;
            ++pos_;
            if (!atEnd() && (peek() == '+' || peek() == '-')) ++pos_;
            const std::size_t digits = pos_;
            while (!atEnd() && peek() >= '0' && peek() <= '9') ++pos_;
            if (pos_ == digits) return std::nullopt;
        }
        const std::string token(text_.substr(start, pos_ - start));
        if (integral) {
            errno = 0;
            char* end = nullptr;
            const long long asSigned = std::strtoll(token.c_str(), &end, 10);
            if (errno == 0) return Json::integer(asSigned);
            if (token[0] != '-') {
                errno = 0;
                const unsigned long long asUnsigned = std::strtoull(token.c_str(), &end, 10);
                if (errno == 0) return Json::unsignedInteger(asUnsigned);
            }
        }
        return Json::real(std::strtod(token.c_str(), nullptr));
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    bool tooDeep_ = false;
};

// ---------------------------------------------------------------------------------------------
// Value comparison.

// Numbers compare by mathematical value whatever their kind (-0 equals 0, 1.0 equals 1; NaN
// equals NaN here, since both sides read the same token).
inline bool sameNumber(const Json& a, const Json& b) {
    auto asLong = [](const Json& v) -> long double {
        switch (v.type()) {
        case Json::Type::integer: return static_cast<long double>(v.intValue());
        case Json::Type::unsignedInteger: return static_cast<long double>(v.uintValue());
        default: return static_cast<long double>(v.realValue());
        }
    };
    const long double x = asLong(a), y = asLong(b);
    if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y);
    return x == y;
}

// The last member with this key (what JavaScript, Python and Go take), found without Json::find
// so that a fault in find cannot hide itself.
inline const Json* lastMember(const Json& object, std::string_view key) {
    const auto& members = object.objectValue();
    for (auto it = members.rbegin(); it != members.rend(); ++it) {
        if (it->key == key) return &it->value;
    }
    return nullptr;
}

// Equality as a reader of the text sees it: objects by their distinct keys, each key's value
// being its last member. `strictDuplicates` also asks that repeated keys keep every member in
// the original relative order, or are reduced to the last one.
inline bool sameValue(const Json& a, const Json& b, bool strictDuplicates) {
    if (a.isNumberLiteral() || b.isNumberLiteral()) {
        return a.isNumberLiteral() && b.isNumberLiteral() && sameNumber(a, b);
    }
    if (a.type() != b.type()) return false;
    switch (a.type()) {
    case Json::Type::null: return true;
    case Json::Type::boolean: return a.boolValue() == b.boolValue();
    case Json::Type::string: return a.stringValue() == b.stringValue();
    case Json::Type::array: {
        const auto& x = a.arrayValue();
        const auto& y = b.arrayValue();
        if (x.size() != y.size()) return false;
        for (std::size_t i = 0; i < x.size(); ++i) {
            if (!sameValue(x[i], y[i], strictDuplicates)) return false;
        }
        return true;
    }
    case Json::Type::object: {
        const auto& x = a.objectValue();
        const auto& y = b.objectValue();
        // every key of one side exists on the other with the same last value
        for (const auto& m : x) {
            const Json* other = lastMember(b, m.key);
            if (!other || !sameValue(*lastMember(a, m.key), *other, strictDuplicates)) return false;
        }
        for (const auto& m : y) {
            if (!lastMember(a, m.key)) return false;
        }
        if (!strictDuplicates) return true;
        for (const auto& m : x) {
            std::vector<const Json*> before, after;
            for (const auto& n : x)
                if (n.key == m.key) before.push_back(&n.value);
            for (const auto& n : y)
                if (n.key == m.key) after.push_back(&n.value);
            if (after.size() == 1) continue; // reduced to the last (already compared)
            if (after.size() != before.size()) return false;
            for (std::size_t i = 0; i < after.size(); ++i) {
                if (!sameValue(*before[i], *after[i], strictDuplicates)) return false;
            }
        }
        return true;
    }
    default: return false;
    }
}

// Deepest container nesting (a scalar is 0, [] is 1) and whether a non-finite number occurs.
// Iterative, since reader output may nest far deeper than the C++ stack allows.
inline std::pair<std::size_t, bool> depthAndNonFinite(const Json& root) {
    std::size_t deepest = 0;
    bool nonFinite = false;
    std::vector<std::pair<const Json*, std::size_t>> stack{{&root, 0}};
    while (!stack.empty()) {
        auto [v, depth] = stack.back();
        stack.pop_back();
        if (v->type() == Json::Type::real && !std::isfinite(v->realValue())) nonFinite = true;
        if (v->isArray()) {
            deepest = std::max(deepest, depth + 1);
            for (const auto& e : v->arrayValue()) stack.emplace_back(&e, depth + 1);
        } else if (v->isObject()) {
            deepest = std::max(deepest, depth + 1);
            for (const auto& m : v->objectValue()) stack.emplace_back(&m.value, depth + 1);
        }
    }
    return {deepest, nonFinite};
}

// Decoding with replacement changes the bytes exactly when they are not valid UTF-8.
inline bool isValidUtf8(std::string_view s) {
    std::string decoded;
    ReferenceJsonReader::appendDecodedUtf8(decoded, s);
    return decoded == s;
}

// Outside strings the writer's text holds no whitespace; inside strings no raw control byte.
inline std::string checkCanonicalText(std::string_view text, bool escapeSlash) {
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (inString) {
            if (c < 0x20) return "raw control byte inside a written string";
            if (c == '\\') {
                if (i + 1 < text.size() && text[i + 1] == '/' && !escapeSlash) return "\\/ written without being asked for";
                ++i;
                continue;
            }
            if (c == '/' && escapeSlash) return "unescaped '/' although the caller asked for \\/";
            if (c == '"') inString = false;
        } else {
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r') return "whitespace between tokens";
            if (c == '"') inString = true;
        }
    }
    if (!isValidUtf8(text)) return "written text is not valid UTF-8";
    return {};
}

// Keys of every object in the (re-read) written text are in the writer's sort order.
inline std::string checkSortedKeys(const Json& root) {
    std::vector<const Json*> stack{&root};
    while (!stack.empty()) {
        const Json* v = stack.back();
        stack.pop_back();
        if (v->isArray()) {
            for (const auto& e : v->arrayValue()) stack.push_back(&e);
        } else if (v->isObject()) {
            const auto& members = v->objectValue();
            for (std::size_t i = 0; i < members.size(); ++i) {
                if (v->find(members[i].key) != lastMember(*v, members[i].key)) return "find is not the last member";
                if (jsonKeyLess(members[i].key, members[i].key)) return "jsonKeyLess is not irreflexive";
                if (i > 0 && jsonKeyLess(members[i].key, members[i - 1].key)) {
                    return "keys out of order: \"" + members[i - 1].key + "\" before \"" + members[i].key + "\"";
                }
                stack.push_back(&members[i].value);
            }
        }
    }
    return {};
}

// The whole property set for one input.
inline std::string checkJsonInput(std::string_view text) {
    const std::optional<Json> parsed = parseJson(text);

    bool tooDeep = false;
    const std::optional<Json> reference = ReferenceJsonReader::read(text, tooDeep);
    if (reference && !parsed) return "reader refuses a text that mainstream parsers read";
    if (reference && parsed && !sameValue(*parsed, *reference, false)) {
        return "reader reads a different value than mainstream parsers";
    }
    if (!parsed) return {};

    const bool nonFinite = depthAndNonFinite(*parsed).second;
    for (const bool escapeSlash : {false, true}) {
        const std::optional<std::string> written = writeJson(*parsed, JsonWriteOptions{escapeSlash});
        if (!written) {
            if (!nonFinite) return "writer refused a finite value";
            continue;
        }
        if (nonFinite) return "writer wrote a non-finite number";
        if (auto fault = checkCanonicalText(*written, escapeSlash); !fault.empty()) return fault;
        const std::optional<Json> reread = parseJson(*written);
        if (!reread) return "reader refuses the writer's text";
        if (!sameValue(*parsed, *reread, true)) return "written text reads back to a different value";
        if (auto fault = checkSortedKeys(*reread); !fault.empty()) return fault;
        // After one normalisation (-0 and integral reals may change spelling) the text is a fixpoint.
        const std::optional<std::string> second = writeJson(*reread, JsonWriteOptions{escapeSlash});
        if (!second) return "writer refuses a value it wrote itself";
        const std::optional<Json> rereadAgain = parseJson(*second);
        if (!rereadAgain) return "reader refuses the writer's second text";
        const std::optional<std::string> third = writeJson(*rereadAgain, JsonWriteOptions{escapeSlash});
        if (!third || *third != *second) return "writer output is not stable under re-reading";
    }
    // Copies and moves of deep values must not recurse or leak (ASan/LSan watch this).
    Json copy = *parsed;
    Json moved = std::move(copy);
    if (!(moved == *parsed)) return "copy of a value is not equal to it";
    return {};
}

} // namespace sentrova::fuzzcheck
