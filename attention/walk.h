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

  // A row as values of To, which are the same numbers.
  template <typename To>
  simd<To, HD> load(uint64_t row) const {
    return convert<To>(simd<T, HD>::load(data + row * HD));
  }
  ORRERY_INLINE void prefetch(uint64_t row) const { prefetch_far<HD * sizeof(T)>(data + row * HD); }
};

// What to do before a key that is near is read.
inline constexpr auto no_prefetch = [](uint64_t) {};

// The weights of up to keys_at_once keys for Q queries.
template <int Q>
struct key_weights {
  float of[Q][keys_at_once];
};

// The products of Q queries with the n keys from key t on, up to keys_at_once, rounded to T as their sums are.
// before(k) is called before key k is read.
template <typename T, int HD, int Q, typename Keys, typename Before>
ORRERY_INLINE inline void dot_keys(const simd<T, HD> (&query)[Q], const Keys& key, uint64_t t, int n,
                                   const Before& before, simd<T, keys_at_once> (&dot)[Q]) {
  simd<T, keys_at_once> part[Q][keys_at_once];
  for (int k = 0; k < n; ++k) {
    before(t + k);
    const auto row = key.template load<T>(t + k);
    ORRERY_UNROLL for (int i = 0; i < Q; ++i) part[i][k] = fold_to<keys_at_once>(query[i] * row);
  }
  ORRERY_UNROLL for (int i = 0; i < Q; ++i) dot[i] = fold_each(part[i]);
}

// The weights of these keys: the exponentials of shift(i, t, n, x), where x is their scaled products with query i. No
// maximum is subtracted.
template <typename T, int HD, int Q, typename Keys, typename Shift, typename Before>
ORRERY_INLINE inline key_weights<Q> weigh_keys(const simd<T, HD> (&query)[Q], const Keys& key, uint64_t t, int n,
                                               const Shift& shift, const Before& before) {
  using scores = simd<float, keys_at_once>;
  simd<T, keys_at_once> dot[Q];
  dot_keys(query, key, t, n, before, dot);
  key_weights<Q> weight;
  ORRERY_UNROLL for (int i = 0; i < Q; ++i) {
    const scores x = shift(i, t, n, convert<float>(dot[i]) * scores(attention_scale(HD)));
    native::exp2(x * scores(log2_e)).store(weight.of[i]);
  }
  return weight;
}

// The sums of Q queries: of weights times values, and of weights.
template <int HD, int Q>
struct weighted_sums {
  simd<float, HD> values[Q];
  float weights[Q] = {};

  // Adds the values of keys t + [begin, end), in order, for the queries [first, first + Count).
  template <int Count = Q, typename Values>
  ORRERY_INLINE void add(const Values& value, uint64_t t, int begin, int end, const key_weights<Q>& weight,
                         int first = 0) {
    // As many queries as fit into a host's registers. Whole rows: with parts of them for all queries, values that are
    // not in the cache yet were read in jumps, and 2048 keys of 128 floats took 1.05 ms instead of 0.98.
    constexpr int most = std::min(Count, 256 / HD);
    ORRERY_UNROLL for (int i = 0; i + most <= Count; i += most) {
      add_rows<most>(value, t, begin, end, weight, first + i);
    }
    if constexpr (Count % most != 0) {
      add_rows<Count % most>(value, t, begin, end, weight, first + Count / most * most);
    }
  }

 private:
  template <int Count, typename Values>
  ORRERY_INLINE void add_rows(const Values& value, uint64_t t, int begin, int end, const key_weights<Q>& weight,
                              int first) {
    simd<float, HD> sum[Count];
    ORRERY_UNROLL for (int i = 0; i < Count; ++i) sum[i] = values[first + i];
    for (int k = begin; k < end; ++k) {
      const simd<float, HD> row = value.template load<float>(t + k);
      ORRERY_UNROLL for (int i = 0; i < Count; ++i) sum[i] += row * simd<float, HD>(weight.of[first + i][k]);
    }
    ORRERY_UNROLL for (int i = 0; i < Count; ++i) {
      values[first + i] = sum[i];
      for (int k = begin; k < end; ++k) weights[first + i] += weight.of[first + i][k];
    }
  }
};

}  // namespace orrery
