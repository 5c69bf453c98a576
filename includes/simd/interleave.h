// Rows of bytes side by side.
#pragma once

#include "includes/simd.h"

namespace orrery {

namespace detail {

#ifdef __AVX512BW__
// Eight rows of four times eight 16-bit units, transposed in each quarter: chunk q of out[i] has unit 8q + i of rows 0
// to 7.
ORRERY_INLINE inline void transpose_quarters(const __m512i (&row)[8], __m512i (&out)[8]) {
  __m512i two[8], four[8];
  ORRERY_UNROLL for (int r = 0; r < 8; r += 2) {
    two[r] = _mm512_maskz_unpacklo_epi16(~0u, row[r], row[r + 1]);
    two[r + 1] = _mm512_maskz_unpackhi_epi16(~0u, row[r], row[r + 1]);
  }
  ORRERY_UNROLL for (int h = 0; h < 8; h += 4) {
    ORRERY_UNROLL for (int i = 0; i < 2; ++i) {
      four[h + 2 * i] = _mm512_maskz_unpacklo_epi32(0xFFFF, two[h + i], two[h + 2 + i]);
      four[h + 2 * i + 1] = _mm512_maskz_unpackhi_epi32(0xFFFF, two[h + i], two[h + 2 + i]);
    }
  }
  ORRERY_UNROLL for (int i = 0; i < 4; ++i) {
    out[2 * i] = _mm512_maskz_unpacklo_epi64(0xFF, four[i], four[4 + i]);
    out[2 * i + 1] = _mm512_maskz_unpackhi_epi64(0xFF, four[i], four[4 + i]);
  }
}
#endif

}  // namespace detail

// Pairs of bytes of N rows, which lie `stride` bytes apart: pair p of row j goes to out + 2 (p * N + j). A multiple of
// 8 rows of 32 or 64 bytes.
template <int N, int Bytes>
ORRERY_INLINE inline void interleave_pairs(const uint8_t* rows, uint64_t stride, uint8_t* out) {
#ifdef __AVX512BW__
  // Rows of 32 bytes fill half a vector, the same rows' other half is not looked at: two rows a vector would save 8 of
  // 24 shuffles and take 4 more loads.
  ORRERY_UNROLL for (int j = 0; j < N; j += 8) {
    __m512i row[8], all[8];
    ORRERY_UNROLL for (int r = 0; r < 8; ++r) {
      const uint8_t* p = rows + (j + r) * stride;
      if constexpr (Bytes == 64) {
        row[r] = _mm512_loadu_si512(p);
      } else {
        row[r] = _mm512_maskz_loadu_epi64(0x0F, p);
      }
    }
    detail::transpose_quarters(row, all);
    ORRERY_UNROLL for (int i = 0; i < 8; ++i) {
      const auto store = [&](int q, auto units) { std::memcpy(out + 2 * ((8 * q + i) * N + j), &units, 16); };
      const auto units = (detail::vector_t<int64_t, 8>)all[i];
      store(0, __builtin_shufflevector(units, units, 0, 1));
      store(1, __builtin_shufflevector(units, units, 2, 3));
      if constexpr (Bytes == 64) {
        store(2, __builtin_shufflevector(units, units, 4, 5));
        store(3, __builtin_shufflevector(units, units, 6, 7));
      }
    }
  }
#else
  for (int p = 0; p < Bytes / 2; ++p) {
    for (int j = 0; j < N; ++j) std::memcpy(out + 2 * (p * N + j), rows + j * stride + 2 * p, 2);
  }
#endif
}

}  // namespace orrery
