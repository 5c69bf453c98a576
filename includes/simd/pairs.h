// Two vectors side by side, as join_pairs puts them: lane 2i is lane i of the first, lane 2i + 1 lane i of the second.
// With 16-bit lanes both fit into the registers of one vector of 32-bit lanes.
#pragma once

#include "words.h"

namespace orrery {

// The lower 16 bits of both, side by side; and the upper ones.
template <int N>
ORRERY_INLINE inline simd<uint16_t, 2 * N> lower_halves(const simd<uint32_t, N>& first,
                                                        const simd<uint32_t, N>& second) {
  return bit_cast<uint16_t>((first & simd<uint32_t, N>(0xFFFFu)) | second << 16);
}
template <int N>
ORRERY_INLINE inline simd<uint16_t, 2 * N> upper_halves(const simd<uint32_t, N>& first,
                                                        const simd<uint32_t, N>& second) {
  return bit_cast<uint16_t>(first >> 16 | (second & simd<uint32_t, N>(0xFFFF0000u)));
}

// M values from each of two addresses, of any alignment.
template <typename T, int M>
ORRERY_INLINE inline simd<T, 2 * M> load_two(const void* first, const void* second) {
  static_assert(!is_widened<T>);
  simd<T, 2 * M> r;
  if constexpr (M * sizeof(T) == 8) {  // in a register: through memory, the wide load would wait for two stores
    simd<uint64_t, 2> both;
    uint64_t part;
    std::memcpy(&part, first, 8);
    both.set(0, part);
    std::memcpy(&part, second, 8);
    both.set(1, part);
    std::memcpy(&r.v, &both.v, sizeof r.v);
  } else {
    r.template set_slice<0>(simd<T, M>::load(static_cast<const T*>(first)));
    r.template set_slice<M>(simd<T, M>::load(static_cast<const T*>(second)));
  }
  return r;
}

// load_shared from two addresses, side by side.
template <typename T, int N, int Share, typename P>
ORRERY_INLINE inline simd<T, 2 * N> load_shared_pairs(const void* first, const void* second) {
  using V = simd<T, 2 * N>;
  using S = typename V::S;
  using I = detail::int_like<S>;
  constexpr int M = N <= Share ? 1 : N / Share, W = V::W;
  const auto few = convert<T>(load_two<P, M>(first, second));
  V r;
  if constexpr (2 * M <= W && machine::permutes<S, W>) {
    const auto wide = machine::widen<S, 2 * M, W>(few.v[0]);
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      const auto lane = machine::iota<I, W>() + I(c * W);
      r.v[c] = machine::permute<S, W>(wide, lane / I(2 * Share) + (lane & I(1)) * I(M));
    }
  } else {
    ORRERY_UNROLL for (int i = 0; i < 2 * N; ++i) r.set(i, few[i / (2 * Share) + i % 2 * M]);
  }
  return r;
}

}  // namespace orrery
