#pragma once

// UTF-8 as every reader of the bridge takes it: ill-formed bytes count as U+FFFD, one per
// maximal ill-formed subsequence, as WHATWG's decoder (and so Node) does.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace sentrova {

inline constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD"; // U+FFFD

// Length of the well-formed UTF-8 sequence that starts at p (a byte from 0x80 up), or, when it
// is ill-formed, the negated length of its maximal invalid prefix (at least 1 byte). Each such
// prefix becomes one U+FFFD.
inline std::ptrdiff_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) noexcept {
    const unsigned char lead = *p;
    std::ptrdiff_t continuations;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        continuations = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        continuations = 2;
        if (lead == 0xE0) low = 0xA0;      // no overlong forms
        else if (lead == 0xED) high = 0x9F; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        continuations = 3;
        if (lead == 0xF0) low = 0x90;       // no overlong forms
        else if (lead == 0xF4) high = 0x8F; // nothing above U+10FFFF
    } else {
        return -1;
    }
    for (std::ptrdiff_t i = 1; i <= continuations; ++i) {
        if (p + i >= end || p[i] < low || p[i] > high) return -i;
        low = 0x80;
        high = 0xBF;
    }
    return continuations + 1;
}

// Appends codePoint encoded; a surrogate or a value beyond U+10FFFF is written as U+FFFD.
void appendUtf8(std::string& out, std::uint32_t codePoint);

// A member name under Unicode simple case folding, as Go's encoding/json matches names (the
// last case-insensitive match wins there): two names that give the same text name the same
// field for such a server ("Path" and "path", "\u00e9" and "\u00c9", U+212A KELVIN SIGN and "k").
std::string foldedName(std::string_view name);

} // namespace sentrova
