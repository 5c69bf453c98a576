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

  row_sums<Format, T, WG, 2> sums;
  projections to;
  sycl::local_accessor<T> partial;  // 2 rows of WG

  void bind(const linear_decision&, const projection_operands& on, sycl::handler& h) {
    sums = {on.state_size, static_cast<const T*>(on.x)};
    to = on.to;
    partial = sycl::local_accessor<T>(sycl::range<1>(2 * WG), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    // The same for the whole group: the range is that of the projection with most rows.
    if (!to.is_beyond(item.group(1), item.group(0))) add_up(item);
  }

 private:
  // Apart, so that a group of no pair saves no registers.
  template <typename Item>
  [[gnu::noinline]] void add_up(const Item& item) const {
    const uint64_t p = item.group(1);
    const projection& mine = to.of[p];
    const rotary_pair pair(to, item.group(0));
    if (pair.first + to.half_head >= mine.output_size) return;
    const weight_rows rows{.weight = mine.weight,
                           .scale_offset = mine.scale_offset,
                           .first = pair.first,
                           .step = to.half_head,
                           .next = pair.next(to)};
    simd<T, Item::lanes> acc[2];
    if constexpr (Item::lanes == 1) {
      sums.add(item, acc, sums.input_order(item), rows);
      finish(item, acc, pair, [&] { return rotary_turn::of(to, pair.i); });
    } else {
      // All heads have the same turns: made for each pair, they took a quarter of the launch.
      constexpr int some = 16;
      const uint64_t inputs = sums.input_count();
      const uint64_t turns = (std::min<uint64_t>(to.half_head, item.group_range(0)) + some - 1) / some * some;
      const auto* all = item.template shared_by_launch<register_type<T>>(inputs + 2 * turns, [&](auto* at) {
        sums.arrange_inputs(at);
        at += inputs;
        for (uint64_t i = 0; i < turns; i += some) {
          const rotary_turns<some> of(to, static_cast<uint32_t>(i));
          for (int k = 0; k < some; ++k, at += 2) {
            at[0] = of.cs[k];
            at[1] = of.sn[k];
          }
        }
      });
      sums.add(item, acc, sums.input_order(item, all), rows);
      finish(item, acc, pair, [&] {
        const auto* turn = all + inputs + 2 * pair.i;
        return rotary_turn{static_cast<float>(turn[0]), static_cast<float>(turn[1])};
      });
    }
  }

  template <typename Item, int N, typename Turn>
  ORRERY_INLINE void finish(const Item& item, const simd<T, N> (&acc)[2], const rotary_pair& pair, Turn turn) const {
    tree_sums<WG, 2>(item, &partial[0], acc,
                     [&](const T(&totals)[2]) { store_pair<HasBias>(to, item.group(1), pair, totals, turn); });
  }
};

}  // namespace orrery
