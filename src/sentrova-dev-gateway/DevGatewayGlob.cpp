#include "sentrova-dev-gateway/DevGatewayGlob.hpp"

#include <cstddef>

namespace sentrova {

namespace {

bool isContinuationByte(char c) noexcept {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Index just past the code point that starts at i.
std::size_t nextCodePoint(std::string_view text, std::size_t i) noexcept {
    ++i;
    while (i < text.size() && isContinuationByte(text[i])) {
        ++i;
    }
    return i;
}

} // namespace

bool globMatches(std::string_view pattern, std::string_view text) noexcept {
    // Greedy scan with one backtrack point: the position after the last "*" and the text
    // position it currently stands for. Linear in practice, never recursive.
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t starPattern = std::string_view::npos;
    std::size_t starText = 0;
    while (t < text.size()) {
        if (p < pattern.size()) {
            const char pc = pattern[p];
            if (pc == '*') {
                starPattern = ++p;
                starText = t;
                continue;
            }
            if (pc == '?') {
                ++p;
                t = nextCodePoint(text, t);
                continue;
            }
            const std::size_t literal = (pc == '\\' && p + 1 < pattern.size()) ? p + 1 : p;
            if (pattern[literal] == text[t]) {
                p = literal + 1;
                ++t;
                continue;
            }
        }
        if (starPattern == std::string_view::npos) {
            return false;
        }
        p = starPattern;
        starText = nextCodePoint(text, starText);
        t = starText;
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

} // namespace sentrova
