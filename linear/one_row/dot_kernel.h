// y = W x for one input row that was quantized to q8_1 first: dot products of codes in whole numbers, scaled by parts
// of a block.
#pragma once

#include "formats/q8_1.h"
#include "includes/codes.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

// What the sums of a row's 32 work-items are added up in.
enum class dot_tree {
  in_type,   // rounded to T first, over local memory
  in_float,  // the sub-group's butterfly
};

// A group has `Rows` rows of 32 work-items; more than one row is a second dimension of the group. Work-item l of a row
// has part l % parts of blocks l / parts, l / parts + 32 / parts, ...
template <typename Format, typename T, dot_tree Tree, int Rows>
struct dot_kernel {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = Tree == dot_tree::in_type && lanes_of<dot_kernel> == 1;
  static constexpr int rows = Rows;
  static constexpr dot_tree tree = Tree;

  uint64_t output_size = 0;
  uint32_t blocks = 0;  // of a row
  const uint8_t* weight = nullptr;
  const uint8_t* activations = nullptr;
  T* y = nullptr;
  sycl::local_accessor<T> partial;  // 32 per row, in_type only

  template <typename Item>
  void operator()(const Item& item) const {
    if constexpr (Item::lanes > 1) {
      item.when_last([&] { whole_group(item); });
    } else {
      const int l = static_cast<int>(item.local(0)), r = Rows > 1 ? static_cast<int>(item.local(1)) : 0;
      const uint64_t row = Rows * item.group() + r;
      // Work-items without a row go through the tree too: all of a group have to pass its barriers.
      const bool live = row < output_size;
      simd<float, 1> sum;
      for (uint32_t b = l / Format::parts; live && b < blocks; b += 32 / Format::parts) {
        sum += simd<float, 1>(Format::dot(block(row, b), activations_of(b), l % Format::parts));
      }
      if constexpr (Tree == dot_tree::in_type) {
        const simd<T, 1> rounded[1] = {convert<T>(sum)};
        tree_sum<32, 1>(one_row<Item>{item}, &partial[32 * r], rounded, [&](int, T total) {
          if (live) y[row] = total;
        });
      } else {
        const float total = butterfly_sum<32>(item, sum);
        if (l == 0 && live) y[row] = convert<T>(simd<float, 1>(total))[0];
      }
    }
  }

 private:
  // A work-item as the tree of its own row sees it.
  template <typename Item>
  struct one_row {
    static constexpr int lanes = 1;
    static constexpr bool last_acts_for_group = false;
    const Item& item;
    size_t local_linear() const { return item.local(0); }
    void barrier() const { item.barrier(); }
  };

  const uint8_t* block(uint64_t row, uint32_t b) const { return weight + (row * blocks + b) * Format::bytes; }
  const uint8_t* activations_of(uint32_t b) const { return activations + uint64_t(b) * 8 * formats::q8_1::bytes; }

  template <typename Item>
  void whole_group(const Item& item) const {
    const auto x = input_order(item);
    for (int r = 0; r < Rows; ++r) {
      const uint64_t row = Rows * item.group() + r;
      if (row >= output_size) return;
      const simd<float, 32> sums = row_sums(row, x);
      if constexpr (Tree == dot_tree::in_type) {
        y[row] = fold(convert<T>(sums));
      } else {
        y[row] = convert<T>(simd<float, 1>(fold(sums)))[0];
      }
    }
  }

  // A format multiplies one or more neighbouring blocks at once, which are half of the work-items or all of them.
  static constexpr uint32_t unit = Format::blocks_at_once;
  static constexpr int unit_lanes = Format::parts * unit;
  using inputs = typename Format::inputs;

  template <typename Item>
  auto input_order(const Item& item) const {
    if constexpr (has_byte_vectors) {
      return arranged(item);
    } else {
      return activations;
    }
  }
  template <typename Item>
  const inputs* arranged(const Item& item) const {
    const uint32_t units = (blocks + unit - 1) / unit;
    return item.template shared_by_launch<inputs>(units, [&](inputs* to) {
      for (uint32_t u = 0; u < units; ++u) {
        const uint32_t b = u * unit, left = blocks - b < unit ? blocks - b : unit;
        to[u].fill(activations_of(b), 8 * left);
      }
    });
  }

  // In vectors of bytes.
  simd<float, 32> row_sums(uint64_t row, const inputs* x) const {
    constexpr int turns = 32 / unit_lanes;
    simd<float, unit_lanes> sums[turns];
    const uint8_t* at = block(row, 0);
    const uint64_t group_bytes = uint64_t(Rows) * blocks * Format::bytes;
    const uint32_t whole = blocks / unit;
    for (uint32_t u = 0; u < whole; ++u, at += unit * Format::bytes) {
      prefetch<unit * Format::bytes>(at + group_bytes);
      sums[u % turns] += Format::dots(at, x[u]);
    }
    if (const uint32_t left = blocks % unit; left != 0) {  // what lies behind the row's last block is left out
      auto& sum = sums[whole % turns];
      sum = select(mask<unit_lanes>::first(left * Format::parts), sum + Format::dots(at, x[whole]), sum);
    }
    simd<float, 32> all;
    for_each_constant<turns>([&](auto i) { all.template set_slice<i * unit_lanes>(sums[i]); });
    return all;
  }

  // One part after another.
  simd<float, 32> row_sums(uint64_t row, const uint8_t*) const {
    float sums[32] = {};
    for (uint32_t b = 0; b < blocks; ++b) {
      for (int part = 0; part < Format::parts; ++part) {
        const int l = static_cast<int>(b * Format::parts % 32) + part;
        sums[l] = sums[l] + Format::dot(block(row, b), activations_of(b), part);
      }
    }
    return simd<float, 32>::load(sums);
  }
};

}  // namespace orrery
