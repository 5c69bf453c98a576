// projection_kernel over an input that was quantized to q8_1 first.
#pragma once

#include "formats/super_block.h"
#include "fused/launch.h"
#include "fused/rotary.h"
#include "linear/one_row/dot_kernel.h"

namespace orrery {

// Query and key in Format, the value, where there is one, always in q2_k. Sums are in T from the first block on.
template <typename Format, typename T, int SG, int WG>
struct dot_projection_kernel {
  static_assert(WG == 32);
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<dot_projection_kernel> == 1;
  static constexpr int dimensions = 2;

  dot_sums<Format, T> sums;
  dot_sums<formats::q2_k, T> value_sums;
  projections to;
  sycl::local_accessor<T> partial;  // 2 rows of WG

  void bind(const linear_decision&, const projection_operands& on, sycl::handler& h) {
    sums = {static_cast<uint32_t>(on.state_size / 256), static_cast<const uint8_t*>(on.x)};
    value_sums = {sums.blocks, sums.activations};
    to = on.to;
    partial = sycl::local_accessor<T>(sycl::range<1>(2 * WG), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t p = item.group(1);
    if (to.is_beyond(p, item.group(0))) return;  // the same for the whole group
    const rotary_pair pair(to, item.group(0));
    if (pair.first + to.half_head >= to.of[p].output_size) return;
    simd<T, Item::lanes> acc[2];
    const auto order = input_orders(item);
    if (p == projections::value) {
      add_up(acc, item, value_sums, order.of_value, pair);
    } else {
      add_up(acc, item, sums, order.of_others, pair);
    }
    tree_sums<WG, 2>(item, &partial[0], acc, [&](const T(&totals)[2]) {
      store_pairs<false>(to, p, pair, 1, simd<T, 1>(totals[0]), simd<T, 1>(totals[1]),
                         [&] { return rotary_turns<1>::of(to, pair.i); });
    });
  }

 private:
  template <typename Item, typename Sums, typename Inputs>
  void add_up(simd<T, Item::lanes> (&acc)[2], const Item& item, const Sums& of, [[maybe_unused]] const Inputs* x,
              const rotary_pair& pair) const {
    const projection& mine = to.of[item.group(1)];
    for (int r = 0; r < 2; ++r) {
      const uint8_t* row = mine.weight + (pair.first + r * uint64_t(to.half_head)) * of.row_bytes();
      if constexpr (Item::lanes == 1) {
        acc[r] = of.of_item(row, static_cast<int>(item.local(0)));
      } else {
        acc[r] = of.of_row(row, x, pair.next(to) * of.row_bytes());
      }
    }
  }

  template <typename A, typename B>
  struct orders {
    const A* of_others;
    const B* of_value;
  };
  // A launch shares values in one place, so both orders are made there.
  template <typename Item>
  auto input_orders(const Item& item) const {
    if constexpr (has_byte_vectors && Item::lanes > 1) {
      using A = typename dot_sums<Format, T>::inputs;
      using B = typename dot_sums<formats::q2_k, T>::inputs;
      struct alignas(64) line {
        char bytes[64];
      };
      const size_t first = sums.units() * (sizeof(A) / 64), second = value_sums.units() * (sizeof(B) / 64);
      const line* all = item.template shared_by_launch<line>(first + second, [&](line* at) {
        sums.arrange(reinterpret_cast<A*>(at));
        value_sums.arrange(reinterpret_cast<B*>(at + first));
      });
      return orders<A, B>{reinterpret_cast<const A*>(all), reinterpret_cast<const B*>(all + first)};
    } else {
      return orders<uint8_t, uint8_t>{sums.activations, sums.activations};
    }
  }
};

}  // namespace orrery
