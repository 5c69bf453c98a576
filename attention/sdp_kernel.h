// Attention of each query row to all keys. A work-group takes one query row of one head; its 32 work-items split the
// keys in order and synchronize once, at the end.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "attention/group_tree.h"
#include "attention/walk.h"
#include "includes/operand.h"

namespace orrery {

// The sums of a group's work-items for Q queries.
template <int HD, int Q>
class group_sums {
  using tree = group_tree<float, HD>;

 public:
  static constexpr size_t local_floats = (HD + 1) * tree_group;

  explicit group_sums(float* local) : local_(local) {}

  void put(uint64_t item, const weighted_sums<HD, Q>& sums) {
    ORRERY_UNROLL for (int i = 0; i < Q; ++i) {
      tree::put(values(i), item, sums.values[i]);
      weights(i)[item] = sums.weights[i];
    }
  }

  // Calls store(i, d, values d, d + 1, ... of query i, divided by its weights) for the part of the work-items [begin,
  // end).
  template <typename Store>
  void divided(int begin, int end, Store store) {
    ORRERY_UNROLL for (int i = 0; i < Q; ++i) {
      const float total = fold(simd<float, tree_group>::load(weights(i)));
      tree::fold(values(i), begin, end,
                 [&](int d, const auto& sums) { store(i, d, sums / std::decay_t<decltype(sums)>(total)); });
    }
  }

 private:
  static_assert(last_finishes || Q == 1);

  float* values(int i) {
    if constexpr (last_finishes) {
      return host_.values[i];
    } else {
      return local_;
    }
  }
  float* weights(int i) {
    if constexpr (last_finishes) {
      return host_.weights[i];
    } else {
      return local_ + tree::elements;
    }
  }

  struct on_host {
    alignas(64) float values[Q][tree::elements];
    alignas(64) float weights[Q][tree_group];
  };
  struct nothing {};
  float* local_;
  std::conditional_t<last_finishes, on_host, nothing> host_;
};

// Walks over the keys of the work-items [begin, end) of `count` keys; put(item, sums) gets those of each.
template <typename T, int HD, int Q, typename Keys, typename Values, typename Shift, typename Put>
void walk_keys(const simd<T, HD> (&query)[Q], const Keys& key, const Values& value, uint64_t count, uint64_t begin,
               uint64_t end, const Shift& shift, Put put) {
  const even_split<tree_group> range(count);
  const bool many = count > 512;  // too many to stay in the second-level cache from call to call
  weighted_sums<HD, Q> sums;
  const uint64_t last = range.begin(end);
  for (uint64_t item = begin, t = range.begin(begin); item < end; t += keys_at_once) {
    const int n = static_cast<int>(std::min<uint64_t>(keys_at_once, last - std::min(t, last)));
    const key_weights<Q> weight = weigh_keys<T>(query, key, t, n, shift, [&](uint64_t k) ORRERY_INLINE {
      if (many) key.prefetch(k + keys_at_once), value.prefetch(k + keys_at_once);
    });
    for (uint64_t at = t; item < end; ++item, sums = {}) {
      const uint64_t stop = range.begin(item + 1);
      sums.add(value, t, static_cast<int>(at - t), static_cast<int>(std::min<uint64_t>(stop - t, n)), weight);
      if (stop > t + n) break;  // its other keys come next
      put(item, sums);
      at = stop;
    }
  }
}

struct no_mask {};

// T is the type of query and result, P that of the products of query and keys, M that of the mask; Keys and Values read
// rows of the caches.
template <typename T, typename P, typename M, typename Keys, typename Values, int HD>
struct sdp_body {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr bool masked = !std::is_same_v<M, no_mask>;
  using cached = typename Keys::stored;

  uint64_t q_per_kv = 0;
  operand<const T, 3> query;
  operand<const cached, 2> key, value;
  operand<const M, 3> mask;
  operand<T, 3> out;
  uint64_t input_size = 0, context_length = 0;
  sycl::local_accessor<float> local;

  template <typename Item>
  void operator()(const Item& item) const {
    in_steps(item, tree_group, [&](int begin, int end, auto meet) {
      rows<1>({item.group(0), item.group(1), item.group(2)}, begin, end, meet);
    });
  }

  // On the host: up to four groups that read the same keys.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    const row at{item.group(0), item.group(1), item.group(2)};
    const uint64_t heads = q_per_kv - at.h % q_per_kv;  // that are left with these keys
    const size_t together = std::min({most, size_t{4}, heads * input_size - at.r});
    switch (together) {
      case 4:
        rows<4>(at, 0, tree_group, [] {});
        break;
      case 3:
        rows<3>(at, 0, tree_group, [] {});
        break;
      case 2:
        rows<2>(at, 0, tree_group, [] {});
        break;
      default:
        rows<1>(at, 0, tree_group, [] {});
    }
    return together;
  }

  // Neighbouring groups that read the same keys, as far as they come in equal numbers.
  size_t groups_together() const {
    const uint64_t alike = q_per_kv * input_size;
    return alike % 4 == 0 ? 4 : alike % 3 == 0 ? 3 : alike % 2 == 0 ? 2 : 1;
  }

 private:
  struct row {
    uint64_t b, h, r;
  };

  // The work-items [begin, end) of Q groups from that of row `at` on.
  template <int Q, typename Meet>
  ORRERY_INLINE void rows(row at, int begin, int end, Meet meet) const {
    row of[Q];
    simd<P, HD> q[Q];
    for (int i = 0; i < Q; ++i) {
      of[i] = at;
      q[i] = convert<P>(simd<T, HD>::load(query.at(at.b, at.h, at.r)));
      if (++at.r == input_size) ++at.h, at.r = 0;
    }
    const uint64_t kvh = of[0].h / q_per_kv;
    const auto add_mask = [&]([[maybe_unused]] int i, [[maybe_unused]] uint64_t t, [[maybe_unused]] int n,
                              const auto& x) {
      if constexpr (masked) {
        const M* from = mask.at(of[i].b, of[i].h, of[i].r) + t;
        return x + convert<float>(simd<M, keys_at_once>::load(from, orrery::mask<keys_at_once>::first(n)));
      } else {
        return x;
      }
    };
    group_sums<HD, Q> sums(&local[0]);
    walk_keys<P>(q, Keys{key.at(of[0].b, kvh)}, Values{value.at(of[0].b, kvh)}, context_length, begin, end, add_mask,
                 [&](uint64_t item, const auto& part) { sums.put(item, part); });
    meet();
    sums.divided(begin, end, [&](int i, int d, const auto& lanes) {
      convert<T>(lanes).store(out.at(of[i].b, of[i].h, of[i].r) + d);
    });
  }
};

}  // namespace orrery
