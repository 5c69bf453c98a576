// Sums over lanes.
#pragma once

#include <type_traits>
#include <utility>

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

// Of the lanes of a and b, h at a time, every second h: the first ones or those behind them. `Unit` lanes move
// together.
template <int Unit, typename S, int N>
inline std::pair<vector_t<S, N>, vector_t<S, N>> split_groups(const vector_t<S, N>& a, const vector_t<S, N>& b, int h) {
  using W = std::conditional_t<Unit == 1, S, int32_t>;
  static_assert(sizeof(W) == Unit * sizeof(S));
  using V = vector_t<W, N / Unit>;
  using I = int_like<W>;
  const I size = I(h / Unit);
  const auto unit = machine::iota<I, N / Unit>();
  const auto group = unit / size, low = group * I(2 * size) + (unit - group * size);
  const V x = bits_as<V>(a), y = bits_as<V>(b);
  return {bits_as<vector_t<S, N>>(machine::permute2<W, N / Unit>(x, y, low)),
          bits_as<vector_t<S, N>>(machine::permute2<W, N / Unit>(x, y, low + size))};
}

}  // namespace detail

// Lane r of the result is fold(row[r]). The rows are folded together, two in a vector, then four, ... Lanes of 16 bits
// move in pairs as long as they can: a permutation of words is one operation, one of halves of words three.
template <typename T, int N>
inline simd<T, N> fold_each(const simd<T, N> (&row)[N]) {
  using V = simd<T, N>;
  using S = typename V::S;
  simd<T, N> r;
  if constexpr (V::W == N && N > 1) {
    constexpr int pair = sizeof(S) == 2 && N > 2 ? 2 : 1;
    typename V::chunk v[N];
    ORRERY_UNROLL for (int i = 0; i < N; ++i) v[i] = row[i].v[0];
    ORRERY_UNROLL for (int h = N / 2; h >= 1; h /= 2) {
      ORRERY_UNROLL for (int i = 0; i < h; ++i) {
        const auto [first, second] = h % pair == 0 ? detail::split_groups<pair, S, N>(v[2 * i], v[2 * i + 1], h)
                                                   : detail::split_groups<1, S, N>(v[2 * i], v[2 * i + 1], h);
        v[i] = detail::rounded<T, N>(first + second);
      }
    }
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
