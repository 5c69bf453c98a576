// Query, key and value of one input row in one launch: the second index of a group is the projection, and a group owns
// two rows of it that are turned together.
#pragma once

#include "fused/launch.h"
#include "fused/rotary.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename Format, typename T, int SG, int WG, bool HasBias>
struct projection_kernel {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<projection_kernel> == 1;
  static constexpr int dimensions = 2;
  using sums_type = row_sums<Format, T, WG, 2>;

  sums_type sums;
  projections to;
  uint64_t count = 0;               // of projections
  sycl::local_accessor<T> partial;  // 2 rows of WG

  void bind(const linear_decision& way, const projection_operands& on, sycl::handler& h) {
    sums = {on.state_size, static_cast<const T*>(on.x)};
    to = on.to;
    count = way.global[1];
    partial = sycl::local_accessor<T>(sycl::range<1>(2 * WG), h);
  }

  template <typename Item>
  static constexpr bool takes_whole_groups = sums_type::template whole_groups<Item>;

  template <typename Item>
  void operator()(const Item& item) const {
    compute_group(*this, item);
  }

  // On the host: neighbouring pairs of a head, of one projection after another.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires takes_whole_groups<Item> {
    const bool all = item.group(1) == 0 && most >= count;
    const uint64_t first = item.group(0), pairs = all ? most_pairs(first, most / count) : 1;
    for (uint64_t p = item.group(1); p < (all ? count : item.group(1) + 1); ++p) take_pairs(item, p, first, pairs);
    return all ? pairs * count : 1;
  }
  size_t groups_together() const { return sums_type::groups_at_once * count; }

  template <typename Item>
  void one_group(const Item& item) const {
    // The same for the whole group: the range is that of the projection with most rows.
    const uint64_t p = item.group(1);
    if (to.is_beyond(p, item.group(0))) return;
    const rotary_pair pair(to, item.group(0));
    if (pair.first + to.half_head >= to.of[p].output_size) return;
    simd<T, 1> acc[2];
    sums.add(item, acc, sums.input_order(item), rows_of(p, pair, pair.next(to)));
    tree_sums<WG, 2>(item, &partial[0], acc, [&](const T(&totals)[2]) {
      store_pairs<HasBias>(to, p, pair, 1, simd<T, 1>(totals[0]), simd<T, 1>(totals[1]),
                           [&] { return rotary_turns<1>::of(to, pair.i); });
    });
  }

 private:
  static constexpr int pairs_at_once = sums_type::groups_at_once;

  uint64_t most_pairs(uint64_t first, uint64_t most) const {
    return std::min<uint64_t>({most, pairs_at_once, to.half_head - first % to.half_head});
  }
  weight_rows rows_of(uint64_t p, const rotary_pair& pair, uint64_t next) const {
    return {.weight = to.of[p].weight,
            .scale_offset = to.of[p].scale_offset,
            .first = pair.first,
            .step = to.half_head,
            .next = next};
  }

  template <typename Item>
  void take_pairs(const Item& item, uint64_t p, uint64_t first, uint64_t most) const {
    if (to.is_beyond(p, first)) return;
    const rotary_pair pair(to, first);
    const uint64_t rows = to.of[p].output_size;
    if (pair.first + to.half_head >= rows) return;
    const uint64_t pairs = std::min({most, rows / 2 - first, rows - pair.first - to.half_head});
    // All heads have the same turns: made for each pair, they took a quarter of the launch.
    const uint64_t inputs = sums.input_count() * sizeof(register_type<T>);
    const uint64_t turns = (std::min<uint64_t>(to.half_head, item.group_range(0)) + pairs_at_once + 15) / 16 * 16;
    const char* shared = item.template shared_by_launch<char>(inputs + 2 * turns * sizeof(float), [&](char* at) {
      sums.arrange_inputs(reinterpret_cast<register_type<T>*>(at));
      auto* cs = reinterpret_cast<float*>(at + inputs);
      for (uint64_t i = 0; i < turns; i += 16) {
        const auto some = rotary_turns<16>::of(to, static_cast<uint32_t>(i));
        some.cs.store(cs + i);
        some.sn.store(cs + turns + i);
      }
    });
    const auto [x1, x2] = split_pairs(sums.template of_groups<Item::lanes>(
        reinterpret_cast<const register_type<T>*>(shared), rows_of(p, pair, 1), 2 * pairs));
    store_pairs<HasBias>(to, p, pair, pairs, x1, x2, [&] {
      const auto* cs = reinterpret_cast<const float*>(shared + inputs) + pair.i;
      using F = simd<float, pairs_at_once>;
      return rotary_turns<pairs_at_once>{F::load(cs), F::load(cs + turns)};
    });
  }
};

}  // namespace orrery
