#pragma once
// Vectorised scans over byte runs, shared by the parser and the print path.

#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace termkit {

/// First position at or after `p` whose byte is a C0 control (below 0x20), or `end`.
inline const uint8_t* findControl(const uint8_t* p, const uint8_t* end) {
#if defined(__SSE2__)
    const __m128i limit = _mm_set1_epi8(0x1F);
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        // An unsigned byte is at most 0x1F exactly when min(byte, 0x1F) equals it.
        const int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(v, limit), v));
        if (mask != 0)
            return p + __builtin_ctz(static_cast<unsigned>(mask));
        p += 16;
    }
#endif
    while (p<end&& * p> 0x1F)
        ++p;
    return p;
}

/// True when every byte of the range is below 0x80.
inline bool allAscii(const uint8_t* p, const uint8_t* end) {
#if defined(__SSE2__)
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        if (_mm_movemask_epi8(v) != 0)
            return false;
        p += 16;
    }
#endif
    for (; p < end; ++p) {
        if (*p >= 0x80)
            return false;
    }
    return true;
}

} // namespace termkit

namespace termkit {

/// First position at or after `p` whose byte is not printable ASCII, or `end`.
inline const uint8_t* findNonPrintableAscii(const uint8_t* p, const uint8_t* end) {
#if defined(__SSE2__)
    const __m128i shift = _mm_set1_epi8(0x60);
    const __m128i limit = _mm_set1_epi8(-33);
    while (end - p >= 16) {
        const __m128i v = _mm_add_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), shift);
        const int mask = _mm_movemask_epi8(_mm_cmpgt_epi8(limit, v)) ^ 0xFFFF;
        if (mask != 0)
            return p + __builtin_ctz(static_cast<unsigned>(mask));
        p += 16;
    }
#endif
    while (p < end && *p >= 0x20 && *p <= 0x7E)
        ++p;
    return p;
}

} // namespace termkit
