// Rows of bytes side by side.
#pragma once

#include "includes/simd.h"

namespace orrery {

namespace detail {

#ifdef ORRERY_LANE_MASKS
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

// Where interleave_pairs puts pair p of its first row.
template <int N>
constexpr int interleaved_at(int p) {
  return (p % 8 * 4 + p / 8) * 16 * (N / 8);
}

// Pairs of bytes of N rows, which lie `stride` bytes apart: pair p of row j goes to out + interleaved_at<N>(p) + 2 j.
// The rows are a multiple of 8, of 32 or 64 bytes; `out` has room for 64 bytes a row.
template <int N, int Bytes>
ORRERY_INLINE inline void interleave_pairs(const uint8_t* rows, uint64_t stride, uint8_t* out) {
#ifdef ORRERY_LANE_MASKS
  // Rows of 32 bytes fill half a vector each, and the other half is shuffled for nothing.
  ORRERY_UNROLL for (int j = 0; j < N; j += 8) {
    __m512i row[8], all[8];
    ORRERY_UNROLL for (int r = 0; r < 8; ++r) {
      row[r] = _mm512_maskz_loadu_epi64(Bytes == 64 ? 0xFF : 0x0F, rows + (j + r) * stride);
    }
    detail::transpose_quarters(row, all);
    ORRERY_UNROLL for (int i = 0; i < 8; ++i) {
      if constexpr (N == 8) {
        _mm512_storeu_si512(out + i * 64, all[i]);
      } else {
        ORRERY_UNROLL for (int q = 0; q < Bytes / 16; ++q) {
          std::memcpy(out + interleaved_at<N>(8 * q + i) + 2 * j, reinterpret_cast<const char*>(&all[i]) + 16 * q, 16);
        }
      }
    }
  }
#else
  for (int p = 0; p < Bytes / 2; ++p) {
    for (int j = 0; j < N; ++j) std::memcpy(out + interleaved_at<N>(p) + 2 * j, rows + j * stride + 2 * p, 2);
  }
#endif
}

}  // namespace orrery
