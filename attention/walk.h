// The walk over keys that the attention kernels share: weights of a few keys for a few queries, and the sums of values
// with these weights. A work-item has one query on a device; on the host it also walks for others that read the same
// keys, so that a row is loaded and converted once for all.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "includes/item.h"

namespace orrery {

constexpr int keys_at_once = 16;  // keys whose dot products are folded together

// 1 / sqrt(head_dim), to the nearest float.
constexpr float attention_scale(int head_dim) {
  const uint32_t bits = head_dim == 64 ? 0x3E000000u : head_dim == 96 ? 0x3DD105ECu : 0x3DB504F3u;
  return std::bit_cast<float>(bits);
}
constexpr float log2_e = std::bit_cast<float>(0x3FB8AA3Bu);

// Contiguous rows of T, as the walk reads keys and values.
template <typename T, int HD>
struct plain_rows {
  using stored = T;
  const T* data = nullptr;

  // N elements of a row, from element d on.
  template <int N>
  simd<T, N> load(uint64_t row, int d = 0) const {
    return simd<T, N>::load(data + row * HD + d);
  }
};

// The weights of up to keys_at_once keys for Q queries.
template <int Q>
struct key_weights {
  float of[Q][keys_at_once];
};

// The products of Q queries with the n keys from key t on, up to keys_at_once, rounded to T as their sums are.
template <typename T, int HD, int Q, typename Keys>
ORRERY_INLINE inline void dot_keys(const simd<T, HD> (&query)[Q], const Keys& key, uint64_t t, int n,
                                   simd<T, keys_at_once> (&dot)[Q]) {
  simd<T, keys_at_once> part[Q][keys_at_once];
  for (int k = 0; k < n; ++k) {
    const simd<T, HD> row = convert<T>(key.template load<HD>(t + k));
    ORRERY_UNROLL for (int i = 0; i < Q; ++i) part[i][k] = fold_to<keys_at_once>(query[i] * row);
  }
  ORRERY_UNROLL for (int i = 0; i < Q; ++i) dot[i] = fold_each(part[i]);
}

// The weights of these keys: the exponentials of shift(i, t, n, x), where x is their scaled products with query i. No
// maximum is subtracted.
template <typename T, int HD, int Q, typename Keys, typename Shift>
ORRERY_INLINE inline key_weights<Q> weigh_keys(const simd<T, HD> (&query)[Q], const Keys& key, uint64_t t, int n,
                                               const Shift& shift) {
  using scores = simd<float, keys_at_once>;
  simd<T, keys_at_once> dot[Q];
  dot_keys(query, key, t, n, dot);
  key_weights<Q> weight;
  ORRERY_UNROLL for (int i = 0; i < Q; ++i) {
    const scores x = shift(i, t, n, convert<float>(dot[i]) * scores(attention_scale(HD)));
    native::exp2(x * scores(log2_e)).store(weight.of[i]);
  }
  return weight;
}

// The halving tree over Rows rows of memory, for W of their elements: rows [0, n / 2) plus rows [n / 2, n), repeated.
template <int Rows, int W, typename T>
ORRERY_INLINE inline simd<T, W> fold_rows(const T* rows, int64_t pitch) {
  simd<T, W> v[Rows];
  ORRERY_UNROLL for (int k = 0; k < Rows; ++k) v[k] = simd<T, W>::load(rows + k * pitch);
  ORRERY_UNROLL for (int h = Rows / 2; h >= 1; h /= 2) { ORRERY_UNROLL for (int k = 0; k < h; ++k) v[k] += v[k + h]; }
  return v[0];
}

// The sums of Q queries: of weights times values, and of weights.
template <int HD, int Q>
struct weighted_sums {
  static constexpr int width = 32;  // lanes summed at a time; Q times two vectors fit into the registers of a host
  using vector = simd<float, width>;
  vector values[Q][HD / width];
  float weights[Q] = {};

  // Adds the values of keys t + [begin, end), in order, for the queries [first, first + Count).
  template <int Count = Q, typename Values>
  ORRERY_INLINE void add(const Values& value, uint64_t t, int begin, int end, const key_weights<Q>& weight,
                         int first = 0) {
    ORRERY_UNROLL for (int c = 0; c < HD / width; ++c) {
      vector sum[Count];
      ORRERY_UNROLL for (int i = 0; i < Count; ++i) sum[i] = values[first + i][c];
      for (int k = begin; k < end; ++k) {
        const vector row = convert<float>(value.template load<width>(t + k, c * width));
        ORRERY_UNROLL for (int i = 0; i < Count; ++i) sum[i] += row * vector(weight.of[first + i][k]);
      }
      ORRERY_UNROLL for (int i = 0; i < Count; ++i) values[first + i][c] = sum[i];
    }
    ORRERY_UNROLL for (int i = 0; i < Count; ++i) {
      for (int k = begin; k < end; ++k) weights[first + i] += weight.of[first + i][k];
    }
  }
};

}  // namespace orrery
