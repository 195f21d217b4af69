#pragma once
// Bulk writes of cells.

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Termkit/buffer/CharData.h"

namespace termkit {

static_assert(sizeof(CharData) == 12 && offsetof(CharData, code) == 0 && offsetof(CharData, attribute) == 4 &&
                  offsetof(CharData, payload) == 8,
              "the bulk writers assume this layout");

namespace cellfill {

// A cell as its three 32-bit words: code, attribute, and payload/width/semantic class.
struct Words {
    uint32_t code;
    uint32_t attribute;
    uint32_t rest;
};

// Built from the fields with arithmetic: reading the record back from memory right after
// its fields were stored one by one would stall on store forwarding.
inline Words wordsOf(const CharData& cell) {
    return {static_cast<uint32_t>(cell.code), cell.attribute,
            static_cast<uint32_t>(cell.payload) |
                static_cast<uint32_t>(static_cast<uint8_t>(cell.width)) << 16 |
                static_cast<uint32_t>(cell.semanticContentCode) << 24};
}

#if defined(__SSE2__)
// Four cells are three 16-byte blocks: [c a r c] [a r c a] [r c a r]. The blocks are built in
// registers; building them in memory and loading them back would stall on store forwarding.
struct Blocks {
    __m128i v0;
    __m128i v1;
    __m128i v2;
};

inline Blocks blocksOf(const Words& w) {
    const int c = static_cast<int>(w.code);
    const int a = static_cast<int>(w.attribute);
    const int r = static_cast<int>(w.rest);
    return {_mm_set_epi32(c, r, a, c), _mm_set_epi32(a, c, r, a), _mm_set_epi32(r, a, c, r)};
}
#endif

// Three 32-bit stores, each from a register.
inline void storeCell(CharData* dst, uint32_t code, uint32_t attribute, uint32_t rest) {
    auto* out = reinterpret_cast<unsigned char*>(dst);
    std::memcpy(out, &code, 4);
    std::memcpy(out + 4, &attribute, 4);
    std::memcpy(out + 8, &rest, 4);
}

} // namespace cellfill

/// Fills cells with one value, four cells per three vector stores.
inline void fillCells(CharData* dst, int n, const CharData& value) {
    const cellfill::Words w = cellfill::wordsOf(value);
    int i = 0;
#if defined(__SSE2__)
    if (n >= 4) {
        const cellfill::Blocks b = cellfill::blocksOf(w);
        auto* out = reinterpret_cast<__m128i*>(dst);
        for (; i + 4 <= n; i += 4) {
            _mm_storeu_si128(out, b.v0);
            _mm_storeu_si128(out + 1, b.v1);
            _mm_storeu_si128(out + 2, b.v2);
            out += 3;
        }
    }
#endif
    for (; i < n; ++i)
        cellfill::storeCell(dst + i, w.code, w.attribute, w.rest);
}

/// Writes ASCII bytes as cells whose attribute and remaining fields are those of `w` (its code
/// is ignored), with the byte as code. The codes go into the 16-bit lanes of the prepared
/// blocks (their upper halves stay zero from the prototype).
inline void writeAsciiCells(CharData* dst, const uint8_t* src, int n, cellfill::Words w) {
    w.code = 0;
    int i = 0;
#if defined(__SSE2__)
    if (n >= 4) {
        const cellfill::Blocks b = cellfill::blocksOf(w);
        auto* out = reinterpret_cast<__m128i*>(dst);
        for (; i + 4 <= n; i += 4) {
            // Cell k's code starts at byte 12k: lanes 0 and 6 of the first block, 4 of the
            // second, 2 of the third.
            __m128i v0 = _mm_insert_epi16(b.v0, src[i], 0);
            v0 = _mm_insert_epi16(v0, src[i + 1], 6);
            _mm_storeu_si128(out, v0);
            _mm_storeu_si128(out + 1, _mm_insert_epi16(b.v1, src[i + 2], 4));
            _mm_storeu_si128(out + 2, _mm_insert_epi16(b.v2, src[i + 3], 2));
            out += 3;
        }
    }
#endif
    for (; i < n; ++i)
        cellfill::storeCell(dst + i, src[i], w.attribute, w.rest);
}

/// Writes ASCII bytes as cells that are `proto` with the byte as code.
inline void writeAsciiCells(CharData* dst, const uint8_t* src, int n, const CharData& proto) {
    writeAsciiCells(dst, src, n, cellfill::wordsOf(proto));
}

} // namespace termkit
