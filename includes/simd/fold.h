// Sums over lanes.
#pragma once

#include <type_traits>

#include "shuffle.h"

namespace orrery {

// The halving tree down to M lanes: lanes [0, n/2) plus lanes [n/2, n), repeated. 96 lanes first become 32:
// (0..31 + 32..63) + 64..95.
template <int M, typename T, int N>
inline simd<T, M> fold_to(const simd<T, N>& a) {
  if constexpr (N == M) {
    return a;
  } else if constexpr (N == 96) {
    return fold_to<M>(a.template slice<0, 32>() + a.template slice<32, 32>() + a.template slice<64, 32>());
  } else {
    static_assert((N & (N - 1)) == 0);
    return fold_to<M>(a.template slice<0, N / 2>() + a.template slice<N / 2, N / 2>());
  }
}
template <typename T, int N>
inline T fold(const simd<T, N>& a) {
  return fold_to<1>(a)[0];
}

namespace detail {

// Folds 2 * H vectors into H: v[i] becomes the first H lanes of every 2 * H, of v[2 * i] and then of v[2 * i + 1], plus
// the H lanes after them. Then the same for H / 2, down to 1. Lanes of 16 bits move in pairs while H > 1: a permutation
// of 32-bit words is one operation, one of 16-bit halves three.
template <typename T, int H, typename S, int N>
ORRERY_INLINE inline void fold_pairs(vector_t<S, N>* v) {
  constexpr int unit = sizeof(S) == 2 && H > 1 ? 2 : 1;
  using W = std::conditional_t<unit == 1, S, int32_t>;
  using V = vector_t<W, N / unit>;
  using I = int_like<W>;
  constexpr I size = H / unit;
  const auto lane = machine::iota<I, N / unit>();
  const auto group = lane / size, low = group * I(2 * size) + (lane - group * size);
  ORRERY_UNROLL for (int i = 0; i < H; ++i) {
    const V a = bits_as<V>(v[2 * i]), b = bits_as<V>(v[2 * i + 1]);
    const auto first = machine::permute2<W, N / unit>(a, b, low),
               second = machine::permute2<W, N / unit>(a, b, low + size);
    v[i] = rounded<T, N>(bits_as<vector_t<S, N>>(first) + bits_as<vector_t<S, N>>(second));
  }
  if constexpr (H > 1) fold_pairs<T, H / 2, S, N>(v);
}

}  // namespace detail

// Lane r of the result is fold(row[r]). The rows are folded together, two in a vector, then four, ...
template <typename T, int N>
inline simd<T, N> fold_each(const simd<T, N> (&row)[N]) {
  using V = simd<T, N>;
  simd<T, N> r;
  if constexpr (V::W == N && N > 1) {
    typename V::chunk v[N];
    ORRERY_UNROLL for (int i = 0; i < N; ++i) v[i] = row[i].v[0];
    detail::fold_pairs<T, N / 2, typename V::S, N>(v);
    r.v[0] = v[0];
  } else {
    for (int i = 0; i < N; ++i) r.set(i, fold(row[i]));
  }
  return r;
}

// Lane r of the result is the sum of row[r] by a tree that adds neighbours first, then neighbouring pairs, and so on:
// what lane 0 of a sub-group has after adding the lane 1 above, then 2, 4, ... The rows are folded together.
template <typename T, int N, int R>
inline simd<T, R> fold_neighbours_each(const simd<T, N> (&row)[R]) {
  static_assert(N == 2 * R);
  const auto sums_of_neighbours = [](const auto& a) ORRERY_INLINE {
    const auto [even, odd] = split_pairs(a);
    return even + odd;
  };
  simd<T, R> sum[R];
  ORRERY_UNROLL for (int r = 0; r < R; ++r) sum[r] = sums_of_neighbours(row[r]);
  ORRERY_UNROLL for (int left = R / 2; left >= 1; left /= 2) {
    ORRERY_UNROLL for (int r = 0; r < left; ++r) {
      simd<T, N> both;
      both.template set_slice<0, R>(sum[2 * r]);
      both.template set_slice<R, R>(sum[2 * r + 1]);
      sum[r] = sums_of_neighbours(both);
    }
  }
  return sum[0];
}

}  // namespace orrery
