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
    const uint64_t p = item.group(1);
    const projection& mine = to.of[p];
    const rotary_pair pair(to, item.group(0));
    // The same for the whole group: the range is that of the projection with most rows.
    if (pair.first + to.half_head >= mine.output_size) return;
    simd<T, Item::lanes> acc[2];
    sums.add(item, acc, sums.input_order(item),
             {.weight = mine.weight,
              .scale_offset = mine.scale_offset,
              .first = pair.first,
              .step = to.half_head,
              .next = pair.next(to)});
    tree_sums<WG, 2>(item, &partial[0], acc, [&](const T(&totals)[2]) { store_pair<HasBias>(to, p, pair, totals); });
  }
};

}  // namespace orrery
