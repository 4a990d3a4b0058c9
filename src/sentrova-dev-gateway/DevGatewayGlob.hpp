#pragma once

#include <string_view>

namespace sentrova {

// Shell-style matching of a whole text against a pattern: "*" matches any run of
// characters (also none, also "/"), "?" exactly one character (one UTF-8 code point), a
// backslash makes the next pattern character literal; everything else matches itself,
// case-sensitively.
bool globMatches(std::string_view pattern, std::string_view text) noexcept;

} // namespace sentrova
