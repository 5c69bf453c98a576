// The walk over keys that the attention kernels share. A work-group takes one query row of one head. Its work-items
// split the keys in order and synchronize once, at the end.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "includes/item.h"

namespace orrery {

constexpr int walk_group = 32;    // work-items of a group
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
  const T* data = nullptr;
  simd<T, HD> operator()(uint64_t i) const { return simd<T, HD>::load(data + i * HD); }
};

// A work-item's sums: of weights times values, and of weights.
template <int HD>
struct weighted_sum {
  simd<float, HD> values;
  float weights = 0.0f;
};

// The weights of n keys from key t on: the exponentials of bias(t, n, x), where x is their scaled dot products with q.
// No maximum is subtracted.
template <typename T, int HD, typename Keys, typename Bias>
simd<float, keys_at_once> key_weights(const simd<T, HD>& q, const Keys& key, uint64_t t, int n, const Bias& bias) {
  using scores = simd<float, keys_at_once>;
  simd<T, keys_at_once> part[keys_at_once];
  for (int i = 0; i < n; ++i) part[i] = fold_to<keys_at_once>(q * key(t + i));
  const scores x = bias(t, n, convert<float>(fold_each(part)) * scores(attention_scale(HD)));
  return native::exp2(x * scores(log2_e));
}

// A work-item's share of `count` keys, for one query.
template <typename T, int HD, typename Item, typename Keys, typename Values, typename Bias>
weighted_sum<HD> walk_keys(const Item& item, uint64_t count, const simd<T, HD>& q, const Keys& key, const Values& value,
                           const Bias& bias) {
  const uint64_t i = item.local_linear();
  const even_split<walk_group> range(count);
  weighted_sum<HD> sum;
  for (uint64_t t = range.begin(i), last = range.begin(i + 1); t < last; t += keys_at_once) {
    const int n = static_cast<int>(std::min<uint64_t>(keys_at_once, last - t));
    float weight[keys_at_once];
    key_weights(q, key, t, n, bias).store(weight);
    for (int k = 0; k < n; ++k) {
      sum.values += convert<float>(value(t + k)) * simd<float, HD>(weight[k]);
      sum.weights += weight[k];
    }
  }
  return sum;
}

// Floats of local memory that sum_over_group needs.
template <int HD>
constexpr int walk_memory = (HD + 1) * walk_group;

// Adds up the sums of a group's work-items by the halving tree, in `local`, and calls store(d, sums of values d, d + 1,
// ..., sum of weights). A kernel calls it last. On a GPU each work-item writes its vector as a column and folds a few
// rows. On the host the last strand takes 16 lanes of all vectors at once; columns would take 4096 stores of one float.
template <int HD, typename Item, typename Store>
void sum_over_group(const Item& item, float* local, const weighted_sum<HD>& share, Store store) {
  constexpr int GS = walk_group;
  const size_t tid = item.local_linear();
  float* sums = local + HD * GS;
  sums[tid] = share.weights;
  if constexpr (last_finishes) {
    share.values.store(local + tid * HD);
  } else {
    share.values.store_strided(local + tid, GS);
  }
  meet_to_finish<GS>(item, [&](int begin, int end) {
    const float total = fold(simd<float, GS>::load(sums));
    if constexpr (last_finishes) {
      constexpr int W = 16;
      using vector = simd<float, W>;
      for (int d = 0; d < HD; d += W) {
        vector v[GS / 2];
        ORRERY_UNROLL for (int i = 0; i < GS / 2; ++i) {
          v[i] = vector::load(local + i * HD + d) + vector::load(local + (i + GS / 2) * HD + d);
        }
        ORRERY_UNROLL for (int h = GS / 4; h >= 1; h /= 2) {
          ORRERY_UNROLL for (int i = 0; i < h; ++i) v[i] += v[i + h];
        }
        store(d, v[0], total);
      }
    } else {
      for (int d = begin * (HD / GS); d < end * (HD / GS); ++d) {
        store(d, simd<float, 1>(fold(simd<float, GS>::load(local + d * GS))), total);
      }
    }
  });
}

}  // namespace orrery
