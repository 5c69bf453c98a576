// act(gate x) * (up x) for one input row: a work-group owns R rows of both weights.
#pragma once

#include "fused/gate.h"
#include "fused/launch.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename Format, typename T, int SG, int WG, int R>
struct gated_kernel {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<gated_kernel> == 1;
  static constexpr int dimensions = 1;

  using sums_type = row_sums<Format, T, WG, R>;

  sums_type sums;
  uint64_t output_size = 0;
  const uint8_t* weight[2] = {};  // gate, up
  uint32_t scale_offset = 0;
  int32_t act_type = 0;
  T* result = nullptr;
  sycl::local_accessor<T> partial;  // 2 R rows of WG

  void bind(const linear_decision& way, const gated_operands& on, sycl::handler& h) {
    sums = {on.state_size, static_cast<const T*>(on.x)};
    output_size = on.output_size;
    weight[0] = on.gate;
    weight[1] = on.up;
    scale_offset = way.scale_offset;
    act_type = on.act_type;
    result = static_cast<T*>(on.result);
    partial = sycl::local_accessor<T>(sycl::range<1>(2 * R * WG), h);
  }

  template <typename Item>
  static constexpr bool takes_whole_groups = sums_type::template whole_groups<Item>;

  template <typename Item>
  void operator()(const Item& item) const {
    compute_group(*this, item);
  }

  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires takes_whole_groups<Item> {
    const auto rows = sums_type::take_rows(item, most, output_size);
    const auto* x = sums.shared_inputs(item);
    const auto sum = [&](int w) { return sums.template of_groups<Item::lanes>(x, rows_of(w, rows.first), rows.count); };
    const auto gate = sum(0), up = sum(1);
    gated(act_type, gate, up).store(result + rows.first, mask<sums_type::most_rows>::first(rows.count));
    return rows.groups;
  }
  size_t groups_together() const { return sums_type::groups_at_once; }

  template <typename Item>
  void one_group(const Item& item) const {
    const uint64_t first = R * item.group();
    const auto in = sums.input_order(item);
    simd<T, 1> acc[2 * R];
    for (int w = 0; w < 2; ++w) {
      simd<T, 1> mine[R];
      sums.add(item, mine, in, rows_of(w, first));
      ORRERY_UNROLL for (int r = 0; r < R; ++r) acc[w * R + r] = mine[r];
    }
    tree_sums<WG, 2 * R>(item, &partial[0], acc, [&](const T(&totals)[2 * R]) {
      store_gated<R>(act_type, totals, result + first, static_cast<int64_t>(output_size - first));
    });
  }

 private:
  weight_rows rows_of(int w, uint64_t first) const {
    return {.weight = weight[w], .scale_offset = scale_offset, .first = first, .next = R};
  }
};

}  // namespace orrery
