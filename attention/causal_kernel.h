// Attention of each row of a sequence to itself and to the rows before it. A work-group takes 16 rows of one head, a
// work-item one of them; all walk over the same keys, 16 at a time, which the group brings into local memory together.
#pragma once

#include <algorithm>
#include <cstdint>

#include "attention/walk.h"
#include "includes/operand.h"

namespace orrery {

constexpr int causal_group = 16;  // rows of a group, and keys of a tile
static_assert(causal_group == keys_at_once);

// T is the type of query and result, and of the rows in local memory; Keys and Values read rows of the caches.
template <typename T, typename Keys, typename Values, int HD>
struct sdp_causal_body {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  using cached = typename Keys::stored;

  uint64_t q_per_kv = 0;
  operand<const T, 3> query;
  operand<const cached, 2> key, value;
  operand<T, 3> out;
  uint64_t input_size = 0;
  float log_bias = 0.0f;  // taken off every score, which keeps the sums of a long sequence small
  sycl::local_accessor<T> local;

  static constexpr size_t local_elements = 2 * causal_group * HD;

  template <typename Item>
  void operator()(const Item& item) const {
    in_steps(item, causal_group, [&](int begin, int end, auto meet) { tiles(item, begin, end, meet); });
  }

 private:
  // Rows whose sums are kept in registers together.
  static constexpr int Q = last_finishes ? 4 : 1;

  // The work-items [begin, end), all of a group on the host.
  template <typename Item, typename Meet>
  void tiles(const Item& item, int begin, int end, Meet meet) const {
    constexpr int blocks = last_finishes ? causal_group / Q : 1;
    const uint64_t b = item.group(0), h = item.group(1), kvh = h / q_per_kv;
    const uint64_t tile = item.group(2), first = tile * causal_group;
    const uint64_t last = input_size - 1;
    simd<T, HD> q[blocks][Q];
    for (int i = begin; i < end; ++i) {
      q[(i - begin) / Q][(i - begin) % Q] = simd<T, HD>::load(query.at(b, h, std::min(first + i, last)));
    }
    T* const tile_keys = &local[0];
    T* const tile_values = tile_keys + causal_group * HD;
    const plain_rows<T, HD> keys{tile_keys}, values{tile_values};
    const Keys all_keys{key.at(b, kvh)};
    const Values all_values{value.at(b, kvh)};
    const auto stage = [&](uint64_t from) {
      for (int i = begin; i < end; ++i) {
        const uint64_t row = std::min(from + i, last);
        all_keys.template load<T>(row).store(tile_keys + i * HD);
        all_values.template load<T>(row).store(tile_values + i * HD);
      }
      meet();
    };
    const auto shift = [&](int, uint64_t, int, const auto& x) { return x - std::decay_t<decltype(x)>(log_bias); };

    weighted_sums<HD, Q> sums[blocks];
    for (uint64_t j = 0; j < tile; ++j) {
      stage(j * causal_group);
      for (int n = 0; n < blocks; ++n) {
        sums[n].add(values, 0, 0, causal_group, weigh_keys<T>(q[n], keys, 0, causal_group, shift, no_prefetch));
      }
      meet();
    }
    stage(first);
    for (int n = 0; n < blocks; ++n) {
      const int top = begin + n * Q;  // the block's first row in the tile
      if (first + top > last) return;
      const auto weight = weigh_keys<T>(q[n], keys, 0, top + Q, shift, no_prefetch);
      sums[n].add(values, 0, 0, top + 1, weight);
      for (int i = 0; i < Q && first + top + i <= last; ++i) {
        sums[n].template add<1>(values, 0, top + 1, top + i + 1, weight, i);
        store(out.at(b, h, first + top + i), sums[n], i);
      }
    }
  }

  static void store(T* to, const weighted_sums<HD, Q>& sums, int i) {
    convert<T>(sums.values[i] / simd<float, HD>(sums.weights[i])).store(to);
  }
};

}  // namespace orrery
