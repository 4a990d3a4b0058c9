#pragma once

// The canonical writer.

#include <optional>
#include <string>
#include <string_view>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

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

} // namespace sentrova
