#pragma once

// Sixteen bytes at a time through a run of text, for the reader's and the writer's string scans.

#include <bit>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace sentrova {

#if defined(__SSE2__)
inline __m128i loadBlock(const char* p) noexcept { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Steps over whole blocks of 16 bytes in which `special` marks no byte. Returns the first marked
// byte, or where fewer than 16 bytes are left: the caller's byte loop goes on from there.
template <typename Special>
inline const char* skipUnmarkedBlocks(const char* p, const char* end, Special special) noexcept {
    while (end - p >= 16) {
        const auto mask = static_cast<unsigned>(_mm_movemask_epi8(special(loadBlock(p))));
        if (mask != 0) return p + std::countr_zero(mask);
        p += 16;
    }
    return p;
}
#endif

} // namespace sentrova
