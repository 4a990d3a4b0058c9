#pragma once

// Refuses client messages that parsers disagree on. Go's encoding/json matches member names
// case-insensitively under Unicode simple folding (U+017F LATIN SMALL LETTER LONG S matches
// "s", U+212A KELVIN SIGN matches "k"), and the last match wins. A message such as
// {"method":"tools/list","Method":"tools/call"} is a tools/list for the bridge but a tool
// call for such a server, so it would reach the server without approval. The guard spots
// messages where the members that decide routing or the called tool are repeated or spelled
// in another case, whenever any spelling of "method" says "tools/call".

#include <string_view>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova::AmbiguousCallGuard {

struct Verdict {
    bool ambiguous = false;
    // For an ambiguous message: the id to answer (the last exact "id", else the last spelling
    // variant), or nullptr when the message carries none and is dropped without an answer.
    const Json* id = nullptr;
};

// Looks at a parsed client message (an object); points into it, so it must outlive the verdict.
Verdict inspect(const Json& message) noexcept;

// True when name equals target (lower-case ASCII letters and "_") under Unicode simple case
// folding: ASCII letters in either case, and U+017F for "s" and U+212A for "k".
bool foldsTo(std::string_view name, std::string_view target) noexcept;

} // namespace sentrova::AmbiguousCallGuard
