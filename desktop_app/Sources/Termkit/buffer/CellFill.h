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

static_assert(sizeof(CharData) == 12 && offsetof(CharData, code) == 0, "the bulk writers assume this layout");

/// Fills cells with one value. Four 12-byte records make three 16-byte blocks, written with
/// vector stores instead of one record after the other.
inline void fillCells(CharData* dst, int n, const CharData& value) {
#if defined(__SSE2__)
  if (n >= 4) {
    const CharData block[4] = {value, value, value, value};
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
    const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block) + 1);
    const __m128i v2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block) + 2);
    auto* out = reinterpret_cast<__m128i*>(dst);
    const int blocks = n / 4;
    for (int i = 0; i < blocks; ++i) {
      _mm_storeu_si128(out + 3 * i, v0);
      _mm_storeu_si128(out + 3 * i + 1, v1);
      _mm_storeu_si128(out + 3 * i + 2, v2);
    }
    dst += blocks * 4;
    n -= blocks * 4;
  }
#endif
  for (int i = 0; i < n; ++i) dst[i] = value;
}

/// Writes ASCII bytes as cells that are `proto` with the byte as code. The codes go into
/// the 16-bit lanes of prepared blocks, four cells per three stores.
inline void writeAsciiCells(CharData* dst, const uint8_t* src, int n, const CharData& proto) {
  int i = 0;
#if defined(__SSE2__)
  if (n >= 4) {
    const CharData block[4] = {proto, proto, proto, proto};
    const __m128i t0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
    const __m128i t1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block) + 1);
    const __m128i t2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block) + 2);
    auto* out = reinterpret_cast<__m128i*>(dst);
    for (; i + 4 <= n; i += 4) {
      // Cell k's code starts at byte 12k: lanes 0 and 6 of the first block, 4 of the
      // second, 2 of the third. The codes' upper halves stay zero from the prototype.
      __m128i v0 = _mm_insert_epi16(t0, src[i], 0);
      v0 = _mm_insert_epi16(v0, src[i + 1], 6);
      const __m128i v1 = _mm_insert_epi16(t1, src[i + 2], 4);
      const __m128i v2 = _mm_insert_epi16(t2, src[i + 3], 2);
      _mm_storeu_si128(out, v0);
      _mm_storeu_si128(out + 1, v1);
      _mm_storeu_si128(out + 2, v2);
      out += 3;
    }
  }
#endif
  for (; i < n; ++i) {
    dst[i] = proto;
    dst[i].code = src[i];
  }
}

}  // namespace termkit
