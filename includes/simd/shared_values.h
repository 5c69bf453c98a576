// Words and values that neighbouring lanes share, from anywhere in memory.
#pragma once

#include "shuffle.h"

namespace orrery {

// K words of each lane's own run: lane i's word k is at p + 4 (K i + k), little-endian, any alignment.
template <int K, int N>
inline void load_words(const uint8_t* p, simd<uint32_t, N> (&word)[K]) {
  using V = simd<uint32_t, N>;
  if constexpr (K == 1 || N == 1) {
    if constexpr (N == 1) {
      ORRERY_UNROLL for (int k = 0; k < K; ++k) std::memcpy(&word[k].v[0], p + 4 * k, 4);
    } else {
      word[0] = V::load(reinterpret_cast<const uint32_t*>(p));
    }
  } else {
    static_assert(K == 2);
    constexpr int W = V::W;
    using C = typename V::chunk;
    const C even = detail::iota<uint32_t, W>() * 2u, odd = even + 1u;
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      C a, b;
      std::memcpy(&a, p + c * 8 * W, sizeof a);
      std::memcpy(&b, p + c * 8 * W + 4 * W, sizeof b);
      word[0].v[c] = __builtin_shuffle(a, b, even);
      word[1].v[c] = __builtin_shuffle(a, b, odd);
    }
  }
}

// Asks for `Bytes` bytes that will be read soon; the address may lie anywhere.
template <int Bytes>
ORRERY_INLINE inline void prefetch(const void* p) {
  ORRERY_UNROLL for (int i = 0; i < Bytes; i += 64) __builtin_prefetch(static_cast<const char*>(p) + i);
}

// Values that neighbouring lanes share: lane i is p[i / Share] rounded to T. p may have any alignment.
template <typename T, int N, int Share, typename P>
inline simd<T, N> load_shared(const void* p) {
  if constexpr (N <= Share) {
    return convert<T>(simd<P, N>(simd<P, 1>::load(static_cast<const P*>(p))[0]));
  } else {
    constexpr int M = N / Share;
    const auto few = convert<T>(simd<P, M>::load(static_cast<const P*>(p)));
    using V = simd<T, N>;
    simd<T, N> r;
    if constexpr (M <= V::W && V::W > 1 && sizeof(typename V::S) == 4) {
      const auto wide = detail::low_lanes<V::W>(few.v[0]);
      ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
        const auto index = (detail::iota<int32_t, V::W>() + c * V::W) / Share;
        r.v[c] = __builtin_shuffle(wide, index);
      }
    } else {
      ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, few[i / Share]);
    }
    return r;
  }
}

}  // namespace orrery
