// y = W x for one input row that was quantized to q8_1 first: dot products of codes in whole numbers, scaled by parts
// of a block.
#pragma once

#include "formats/q8_1.h"
#include "includes/codes.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

// Integer dot products of a row of blocks with the quantized input, summed by 32 work-items in `Sum`: work-item l has
// part l % parts of blocks l / parts, l / parts + 32 / parts, ... Which row, and what becomes of the sums, is the
// kernel's.
template <typename Format, typename Sum = float>
struct dot_sums {
  uint32_t blocks = 0;  // of a row
  const uint8_t* activations = nullptr;

  uint64_t row_bytes() const { return uint64_t(blocks) * Format::bytes; }

  // The sum of one work-item.
  simd<Sum, 1> of_item(const uint8_t* row, int l) const {
    simd<Sum, 1> sum;
    for (uint32_t b = l / Format::parts; b < blocks; b += 32 / Format::parts) sum += one_dot(row, b, l % Format::parts);
    return sum;
  }

  // A format multiplies one or more neighbouring blocks at once, which are half of the work-items or all of them.
  static constexpr uint32_t unit = Format::blocks_at_once;
  static constexpr int unit_lanes = Format::parts * unit;
  using inputs = typename Format::inputs;

  // What of_row takes: on a machine with vectors of bytes, the inputs in the order of those.
  template <typename Item>
  auto input_order(const Item& item) const {
    if constexpr (has_byte_vectors) {
      return item.template shared_by_launch<inputs>(units(), [&](inputs* to) { arrange(to); });
    } else {
      return activations;
    }
  }
  // The same in parts, for a kernel with more than one order: a launch shares values in one place.
  uint32_t units() const { return (blocks + unit - 1) / unit; }
  void arrange(inputs* to) const {
    for (uint32_t u = 0; u < units(); ++u) {
      const uint32_t b = u * unit, left = blocks - b < unit ? blocks - b : unit;
      to[u].fill(activations_of(b), 8 * left);
    }
  }

  // The sums of all work-items; the next group's row lies next_bytes further on.
  simd<Sum, 32> of_row(const uint8_t* row, const inputs* x, uint64_t next_bytes) const {
    constexpr int turns = 32 / unit_lanes;
    simd<Sum, unit_lanes> sums[turns];
    const uint32_t whole = blocks / unit;
    for (uint32_t u = 0; u < whole; ++u, row += unit * Format::bytes) {
      prefetch<unit * Format::bytes>(row + next_bytes);
      sums[u % turns] += convert<Sum>(Format::dots(row, x[u]));
    }
    if (const uint32_t left = blocks % unit; left != 0) {  // what lies behind the row's last block is left out
      auto& sum = sums[whole % turns];
      const auto last = convert<Sum>(Format::dots(row, x[whole]));
      sum = select(mask<unit_lanes>::first(left * Format::parts), sum + last, sum);
    }
    simd<Sum, 32> all;
    for_each_constant<turns>([&](auto i) { all.template set_slice<i * unit_lanes>(sums[i]); });
    return all;
  }
  // The same, one part after another.
  simd<Sum, 32> of_row(const uint8_t* row, const uint8_t*, uint64_t) const {
    Sum sums[32] = {};
    for (uint32_t b = 0; b < blocks; ++b) {
      for (int part = 0; part < Format::parts; ++part) {
        const int l = static_cast<int>(b * Format::parts % 32) + part;
        sums[l] = (simd<Sum, 1>(sums[l]) + one_dot(row, b, part))[0];
      }
    }
    return simd<Sum, 32>::load(sums);
  }

 private:
  const uint8_t* activations_of(uint32_t b) const { return activations + uint64_t(b) * 8 * formats::q8_1::bytes; }
  simd<Sum, 1> one_dot(const uint8_t* row, uint32_t b, int part) const {
    const float dot = Format::dot(row + uint64_t(b) * Format::bytes, activations_of(b), part);
    return convert<Sum>(simd<float, 1>(dot));
  }
};

// A work-item as the tree of its own row sees it, in a group whose second index is the row.
template <typename Item>
struct item_of_row {
  static constexpr int lanes = 1;
  static constexpr bool last_acts_for_group = false;
  const Item& item;
  size_t local_linear() const { return item.local(0); }
  void barrier() const { item.barrier(); }
};

// What the sums of a row's 32 work-items are added up in.
enum class dot_tree {
  in_type,   // rounded to T first, over local memory
  in_float,  // the sub-group's butterfly
};

// A group has `Rows` rows of 32 work-items; more than one row is a second dimension of the group.
template <typename Format, typename T, dot_tree Tree, int Rows>
struct dot_kernel {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = Tree == dot_tree::in_type && lanes_of<dot_kernel> == 1;
  static constexpr int dimensions = Rows > 1 ? 2 : 1;

  uint64_t output_size = 0;
  dot_sums<Format> sums;
  const uint8_t* weight = nullptr;
  T* y = nullptr;
  sycl::local_accessor<T> partial;  // 32 per row, in_type only

  void bind(const linear_decision&, const linear_operands& on, sycl::handler& h) {
    output_size = on.output_size;
    sums = {static_cast<uint32_t>(on.state_size / 256), static_cast<const uint8_t*>(on.x)};
    weight = on.weight;
    y = static_cast<T*>(on.y);
    if (Tree == dot_tree::in_type) partial = sycl::local_accessor<T>(sycl::range<1>(32 * Rows), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    if constexpr (Item::lanes > 1) {
      item.when_last([&] { whole_group(item); });
    } else {
      const int l = static_cast<int>(Tree == dot_tree::in_float ? item.template lane<32>() : item.local(0));
      const int r = Rows > 1 ? static_cast<int>(item.local(1)) : 0;
      const uint64_t row = Rows * item.group() + r;
      // Work-items without a row go through the tree too: all of a group have to pass its barriers.
      const bool live = row < output_size;
      simd<float, 1> sum;
      if (live) sum = sums.of_item(row_at(row), l);
      if constexpr (Tree == dot_tree::in_type) {
        const simd<T, 1> rounded[1] = {convert<T>(sum)};
        tree_sum<32, 1>(item_of_row<Item>{item}, &partial[32 * r], rounded, [&](int, T total) {
          if (live) y[row] = total;
        });
      } else {
        const float total = butterfly_sum<32>(item, sum);
        if (l == 0 && live) y[row] = convert<T>(simd<float, 1>(total))[0];
      }
    }
  }

 private:
  const uint8_t* row_at(uint64_t row) const { return weight + row * sums.row_bytes(); }

  template <typename Item>
  void whole_group(const Item& item) const {
    const auto x = sums.input_order(item);
    for (int r = 0; r < Rows; ++r) {
      const uint64_t row = Rows * item.group() + r;
      if (row >= output_size) return;
      const simd<float, 32> all = sums.of_row(row_at(row), x, Rows * sums.row_bytes());
      if constexpr (Tree == dot_tree::in_type) {
        y[row] = fold(convert<T>(all));
      } else {
        y[row] = convert<T>(simd<float, 1>(fold(all)))[0];
      }
    }
  }
};

}  // namespace orrery
