// Unaligned loads of words and of values that neighbouring lanes share; prefetches.
#pragma once

#include "shuffle.h"

namespace orrery {

// Loads K words per lane: word k of lane i is at p + 4 (K i + k), little-endian, any alignment.
template <int K, int N>
ORRERY_INLINE inline void load_words(const uint8_t* p, simd<uint32_t, N> (&word)[K]) {
  const auto* words = reinterpret_cast<const uint32_t*>(p);
  if constexpr (N == 1) {
    ORRERY_UNROLL for (int k = 0; k < K; ++k) word[k] = simd<uint32_t, 1>::load(words + k);
  } else if constexpr (K == 1) {
    word[0] = simd<uint32_t, N>::load(words);
  } else {
    static_assert(K == 2);
    constexpr int W = simd<uint32_t, N>::W;
    const auto even = machine::iota<int32_t, W>() * 2;
    ORRERY_UNROLL for (int c = 0; c < word[0].chunks; ++c) {
      const auto a = machine::load<uint32_t, W>(words + 2 * c * W),
                 b = machine::load<uint32_t, W>(words + (2 * c + 1) * W);
      word[0].v[c] = machine::permute2<uint32_t, W>(a, b, even);
      word[1].v[c] = machine::permute2<uint32_t, W>(a, b, even + 1);
    }
  }
}

// Lane i is word i / Lanes * Words + from(i % Lanes) from p on: each `Lanes` neighbouring lanes share `Words` words.
// May read N * 8 bytes.
template <int Lanes, int Words, int N, typename From>
inline simd<uint32_t, N> load_grouped_words(const uint8_t* p, From from) {
  using V = simd<uint32_t, N>;
  constexpr int W = V::W;
  static_assert(W % Lanes == 0 && Words <= 2 * Lanes);
  typename simd<int32_t, N>::chunk index{};
  ORRERY_UNROLL for (int i = 0; i < W; ++i) {
    machine::set<int32_t, W>(index, i, static_cast<int32_t>(i / Lanes * Words + from(i % Lanes)));
  }
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c, p += W / Lanes * Words * 4) {
    const auto* words = reinterpret_cast<const uint32_t*>(p);
    r.v[c] =
        machine::permute2<uint32_t, W>(machine::load<uint32_t, W>(words), machine::load<uint32_t, W>(words + W), index);
  }
  return r;
}

// Prefetches `Bytes` bytes that will be read soon; p may have any alignment.
template <int Bytes>
ORRERY_INLINE inline void prefetch(const void* p) {
  ORRERY_UNROLL for (int i = 0; i < Bytes; i += 64) machine::prefetch(static_cast<const char*>(p) + i);
}

// The same for a use some thousand cycles later, into the second level of the cache.
template <int Bytes>
ORRERY_INLINE inline void prefetch_far(const void* p) {
  ORRERY_UNROLL for (int i = 0; i < Bytes; i += 64) machine::prefetch_far(static_cast<const char*>(p) + i);
}

// Transposes words of 16 rows: word w at row[j] + at becomes out[16 w + j]. `out` must be aligned to 64 bytes.
template <int Words>
ORRERY_INLINE inline void transpose_words(const uint8_t* const (&row)[16], uint64_t at, uint32_t* out) {
  static_assert(Words % 8 == 0);
  ORRERY_UNROLL for (int w = 0; w < Words; w += 8) machine::transpose_words(row, at + 4 * w, out + 16 * w);
}

// Loads values that neighbouring lanes share: lane i is p[i / Share] rounded to T. p may have any alignment.
template <typename T, int N, int Share, typename P>
inline simd<T, N> load_shared(const void* p) {
  if constexpr (N <= Share) {
    return broadcast<N>(convert<T>(simd<P, 1>::load(static_cast<const P*>(p))));
  } else {
    constexpr int M = N / Share;
    const auto few = convert<T>(simd<P, M>::load(static_cast<const P*>(p)));
    using V = simd<T, N>;
    using S = typename V::S;
    using I = detail::int_like<S>;
    constexpr int W = V::W;
    simd<T, N> r;
    if constexpr (M <= W && machine::permutes<S, W>) {
      const auto wide = machine::widen<S, M, W>(few.v[0]);
      ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
        r.v[c] = machine::permute<S, W>(wide, (machine::iota<I, W>() + I(c * W)) / I(Share));
      }
    } else {
      ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, few[i / Share]);
    }
    return r;
  }
}

}  // namespace orrery
