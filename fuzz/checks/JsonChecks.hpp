#pragma once

// Properties of the JSON reader and writer, shared by the fuzz target and the regression replay
// (whether the reader reads what Node, Python and Go servers read is the differential test's job,
// with the real parsers). The reader must not crash or over-read (ASan watches); for each text it
// accepts, and for numbers made from the input's bytes, the writer's text reads back and holds
// nothing JSON.parse refuses (NaN, Infinity, a BOM, whitespace, control bytes, invalid UTF-8),
// "/" escaped exactly when asked for; read -> write -> read is stable; the writer refuses a
// value exactly when it holds a non-finite number.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova::fuzzcheck {

// Checks the writer's text, which the reader has already accepted, for what only it accepts.
inline bool isStrictCompact(std::string_view t, bool escapeSlash) {
    bool inString = false;
    for (std::size_t i = 0; i < t.size(); ++i) {
        const auto c = static_cast<unsigned char>(t[i]);
        if (!inString) {
            if (c <= ' ' || c == 'N' || c == 'I' || c >= 0x80) return false;
            inString = c == '"';
        } else if (c < 0x20 || (c == '/' && escapeSlash) || (c == '\\' && t[++i] == '/' && !escapeSlash)) {
            return false;
        } else if (c == '"') {
            inString = false;
        } else if (c >= 0x80) { // a lead byte and its continuation bytes, in shortest form
            const int n = c >= 0xF5 ? -1 : c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC2 ? 1 : -1;
            if (n < 0 || i + n >= t.size()) return false;
            for (int k = 1; k <= n; ++k) if ((static_cast<unsigned char>(t[i + k]) & 0xC0) != 0x80) return false;
            const auto d = static_cast<unsigned char>(t[i + 1]);
            if ((c == 0xE0 && d < 0xA0) || (c == 0xED && d > 0x9F) || (c == 0xF0 && d < 0x90) || (c == 0xF4 && d > 0x8F)) return false;
            i += n;
        }
    }
    return true;
}

inline bool holdsNonFinite(const Json& root) {
    std::vector<Json> stack{root};
    while (!stack.empty()) {
        const Json v = std::move(stack.back());
        stack.pop_back();
        if (v.type() == Json::Type::real && !std::isfinite(v.realValue())) return true;
        for (const Json& e : v.arrayValue()) stack.push_back(e);
        for (const auto& m : v.objectValue()) stack.push_back(m.value);
    }
    return false;
}

// Writes, checks the text, reads it back and writes again; "" when all holds.
inline std::string checkWritten(const Json& value, bool escapeSlash) {
    const JsonWriteOptions options{escapeSlash};
    const std::optional<std::string> written = writeJson(value, options);
    if (!written != holdsNonFinite(value)) return "the writer's refusal does not match a non-finite number";
    if (!written) return {};
    const std::optional<Json> reread = parseJson(*written);
    if (!reread || !isStrictCompact(*written, escapeSlash)) return "the writer's text is not strict JSON: " + *written;
    // After one normalisation (-0 and integral reals may change spelling) the text is a fixpoint.
    const std::optional<std::string> second = writeJson(*reread, options);
    const std::optional<Json> rereadAgain = second ? parseJson(*second) : std::nullopt;
    return rereadAgain && writeJson(*rereadAgain, options) == second ? "" : "read -> write -> read is not stable";
}

inline std::string checkJsonInput(std::string_view text) {
    std::uint64_t bits = 0;
    if (!text.empty()) std::memcpy(&bits, text.data(), std::min(text.size(), sizeof bits));
    const Json numbers = Json::array({Json::integer(static_cast<std::int64_t>(bits)), Json::unsignedInteger(bits),
                                      Json::real(std::bit_cast<double>(bits))});
    std::string fault = checkWritten(numbers, false);
    const std::optional<Json> parsed = parseJson(text);
    for (const bool escapeSlash : {false, true}) {
        if (fault.empty() && parsed) fault = checkWritten(*parsed, escapeSlash);
    }
    return fault;
}

} // namespace sentrova::fuzzcheck
