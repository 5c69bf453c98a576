// gated_kernel over an input that was quantized to q8_1 first.
#pragma once

#include "fused/gate.h"
#include "fused/launch.h"
#include "linear/one_row/dot_kernel.h"

namespace orrery {

// A group has two rows of 32 work-items, the second index of a work-item is its row. A row is summed in float and
// rounded to T before the tree.
template <typename Format, typename T>
struct gated_dot_kernel {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = lanes_of<gated_dot_kernel> == 1;
  static constexpr int dimensions = 2;

  dot_sums<Format> sums;
  uint64_t output_size = 0;
  const uint8_t* weight[2] = {};  // gate, up
  int32_t act_type = 0;
  T* result = nullptr;
  sycl::local_accessor<T> partial;  // 2 rows of 64: gate, up

  void bind(const linear_decision&, const gated_operands& on, sycl::handler& h) {
    sums = {static_cast<uint32_t>(on.state_size / 256), static_cast<const uint8_t*>(on.x)};
    output_size = on.output_size;
    weight[0] = on.gate;
    weight[1] = on.up;
    act_type = on.act_type;
    result = static_cast<T*>(on.result);
    partial = sycl::local_accessor<T>(sycl::range<1>(128), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t first = 2 * item.group();
    if constexpr (Item::lanes > 1) {
      item.when_last([&] { whole_group(item, first); });
    } else {
      const size_t r = item.local(1);
      // Work-items without a row go through the tree too: all of a group have to pass its barriers.
      const bool live = first + r < output_size;
      simd<T, 1> acc[2];
      for (int w = 0; live && w < 2; ++w) {
        acc[w] = convert<T>(sums.of_item(row_at(w, first + r), static_cast<int>(item.local(0))));
      }
      tree_sums<32, 2>(item_of_row<Item>{item}, &partial[64 * r], acc, [&](const T(&totals)[2]) {
        if (live) store_gated<1>(act_type, totals, result + first + r, 1);
      });
    }
  }

 private:
  const uint8_t* row_at(int w, uint64_t row) const { return weight[w] + row * sums.row_bytes(); }

  template <typename Item>
  void whole_group(const Item& item, uint64_t first) const {
    const auto x = sums.input_order(item);
    const int live = output_size - first < 2 ? 1 : 2;
    T totals[4] = {};  // two gates, two ups
    for (int w = 0; w < 2; ++w) {
      for (int r = 0; r < live; ++r) {
        totals[2 * w + r] = fold(convert<T>(sums.of_row(row_at(w, first + r), x, 2 * sums.row_bytes())));
      }
    }
    store_gated<2>(act_type, totals, result + first, live);
  }
};

}  // namespace orrery
