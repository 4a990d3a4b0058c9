#pragma once

// The tolerant reader. It accepts a superset of what mainstream server parsers (Node's
// JSON.parse, Python's json, Go's encoding/json) accept: a client line the bridge cannot read
// is not relayed, so a message that a server would take must be readable here, or it is lost.

#include <cstddef>
#include <optional>
#include <string_view>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

// The tolerant reader. The top level must be an object or an array, followed only by
// whitespace (space, tab, CR, LF). A leading UTF-8 BOM is skipped. Invalid UTF-8 and lone
// surrogate escapes inside strings become U+FFFD; numbers of any size are read (int64 or
// uint64 when they fit exactly, else double, overflow to an infinity); NaN, Infinity and
// -Infinity are numbers; nesting depth is unlimited. nullopt when the text is refused.
// A number without fraction or exponent is an integer when it fits ("-0" is the integer 0);
// any other number is a real ("1.0" stays the real 1, "-0.0" the real -0).
// Invalid UTF-8 is replaced per maximal ill-formed subsequence, as WHATWG's decoder does.
std::optional<Json> parseJson(std::string_view text);

// The end of the object or array that starts at from (just past its closing bracket), found by
// bracket depth outside strings, or npos when it never closes. Whether the text is JSON at all
// is for the reader to say.
std::size_t jsonContainerEnd(std::string_view text, std::size_t from) noexcept;

} // namespace sentrova
