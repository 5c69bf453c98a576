// y = W x for one input row, W in a super-block format.
//
// A row is summed by the 32 work-items of a group: 16 share a block, and the two halves of the group take alternate
// blocks. On the host a half is one vector of 16 lanes in the order of the bytes; `place` maps a work-item to its lane.
#pragma once

#include "includes/codes.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

// q4_k and q5_k: products, and their sums within a step, are in T; everything else is in float.
template <typename Format, typename T>
struct row_pair_kernel : row_arguments<T> {
  static constexpr int sub_group_size = 8;
  static constexpr bool has_barriers = lanes_of<row_pair_kernel> == 1;
  static constexpr int dimensions = 1;
  static constexpr int work_group = 32, rows = 2;
  static constexpr int steps = Format::span, products = 4 / steps;    // steps per stretch, products per step
  static constexpr int inputs = 16 + (products > 1 ? 4 * steps : 0);  // per place: its elements, then their sums

  sycl::local_accessor<float> partial;  // 2 rows of 32, for every T

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler& h) {
    this->take(way, on);
    partial = sycl::local_accessor<float>(sycl::range<1>(rows * work_group), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const auto store = [&](int r, float total) {
      const uint64_t row = rows * item.group() + r;
      if (row < this->output_size) this->y[row] = convert<T>(simd<float, 1>(total))[0];
    };
    if constexpr (Item::last_acts_for_group && Item::lanes > 1) {
      item.when_last([&] { whole_group(item, store); });
    } else {
      const int l = static_cast<int>(item.local_linear()), p = place(l % 16);
      simd<float, 1> acc[rows];
      for (uint32_t b = l / 16; b < blocks(); b += 2) {
        const auto x = [&](int k) { return input(b, p, k); };
        add_terms<1>(acc, {block(item.group(), 0, b), block(item.group(), 1, b)}, p, x);
      }
      tree_sum<work_group, rows>(item, &partial[0], acc, store);
    }
  }

 private:
  // Work-items 0, 4, 1, 5, ..., 7 have places 0 to 7, which are in the order of the bytes; work-items 8 to 15 have the
  // rest likewise.
  static constexpr int place(int tid) { return tid / 8 * 8 + tid % 4 * 2 + tid / 4 % 2; }

  uint32_t blocks() const { return static_cast<uint32_t>(this->state_size / 256); }
  const uint8_t* block(uint64_t group, int r, uint32_t b) const {
    return this->weight + ((rows * group + r) * blocks() + b) * Format::bytes;
  }

  // Input k belongs to product k % products of step k / products % steps of stretch k / 4. From 16 on, the inputs are
  // the sums of each step's inputs, by stretch and step.
  simd<T, 1> input(uint32_t b, int p, int k) const {
    const auto x = [&](int s, int i, int u) {
      return simd<T, 1>::load(this->x + 256ull * b + Format::element(p, s, steps * u + i));
    };
    if (k < 16) return x(k / 4, k / products % steps, k % products);
    k -= 16;
    return x(k / steps, k % steps, 0) + x(k / steps, k % steps, 1);
  }

  // Adds a block of each row to the row's sum, for N places from p on. Every step does both rows: with one row after
  // the other, the second waits for its scales (70 cycles per block instead of 65).
  template <int N, typename X>
  ORRERY_INLINE static void add_terms(simd<float, N> (&acc)[rows], const uint8_t* const (&block)[rows], int p, X x) {
    using F = simd<float, N>;
    using part_of = typename Format::template part<N>;
    const part_of part[rows] = {part_of(block[0], p), part_of(block[1], p)};
    F whole[rows], offset[rows];
    simd<T, N> inner[rows][steps];
    // Sums start with their first term, not with 0. Only the sign of a zero can differ, and it is lost when the block
    // is added to the row.
    for_each_constant<4>([&](auto s) ORRERY_INLINE {
      F t[rows];
      simd<T, N> minimum[rows];
      for (int r = 0; r < rows; ++r) minimum[r] = convert_exact<T>(part[r].minimum(s));
      for_each_constant<steps>([&](auto i) ORRERY_INLINE {
        simd<T, N> sum[rows], all;
        for_each_constant<products>([&](auto u) ORRERY_INLINE {
          all = x(4 * s + products * i + u);
          for_each_constant<rows>([&](auto r) ORRERY_INLINE {
            const auto product = all * convert_exact<T>(part[r].template code<s, steps * u + i>());
            sum[r] = u == 0 ? product : sum[r] + product;
          });
        });
        if (products > 1) all = x(16 + steps * s + i);
        for (int r = 0; r < rows; ++r) {
          t[r] = i == 0 ? convert<float>(sum[r]) : t[r] + convert<float>(sum[r]);
          inner[r][i] = s == 0 ? all * minimum[r] : inner[r][i] + all * minimum[r];
        }
      });
      for (int r = 0; r < rows; ++r) {
        t[r] *= part[r].scale(s);
        if (Format::high_codes_in_place && s % 2 == 1) t[r] *= F(0.0625f);
        whole[r] = s == 0 ? t[r] : whole[r] + t[r];
      }
    });
    float d[rows], dmin[rows];
    for (int r = 0; r < rows; ++r) {
      d[r] = Format::d(block[r]);
      dmin[r] = Format::dmin(block[r]);
      for (int i = 0; i < steps; ++i) {
        offset[r] = i == 0 ? convert<float>(inner[r][i]) : offset[r] + convert<float>(inner[r][i]);
      }
    }
    hold_in_memory(d);
    hold_in_memory(dmin);
    for (int r = 0; r < rows; ++r) acc[r] += whole[r] * F(d[r]) - offset[r] * F(dmin[r]);
  }

  template <typename Item, typename Store>
  void whole_group(const Item& item, Store store) const {
    const register_type<T>* x =
        item.template shared_by_launch<register_type<T>>(size_t(blocks()) * inputs * 16, [&](register_type<T>* to) {
          for (uint32_t b = 0; b < blocks(); ++b) {
            for (int k = 0; k < inputs; ++k) {
              for (int p = 0; p < 16; ++p) *to++ = input(b, p, k).register_value(0);
            }
          }
        });
    simd<float, 16> acc[2][rows];
    const uint8_t* row[rows] = {block(item.group(), 0, 0), block(item.group(), 1, 0)};
    const uint64_t group_bytes = uint64_t(rows) * blocks() * Format::bytes;
    for (uint32_t b = 0; b < blocks(); ++b) {
      for (const uint8_t* block : row) prefetch<Format::bytes>(block + group_bytes);
      const register_type<T>* at = x + size_t(b) * inputs * 16;
      add_terms<16>(acc[b % 2], row, 0, [&](int k) ORRERY_INLINE {
        const auto value = simd<T, 16>::load_register_values(at + 16 * k);
        return products == 1 ? hold_in_registers(value) : value;  // with one product per step it is used four times
      });
      for (const uint8_t*& block : row) block += Format::bytes;
    }
    simd<int32_t, 16> from;
    for (int tid = 0; tid < 16; ++tid) from.set(tid, place(tid));
    for (int r = 0; r < rows; ++r) {
      simd<float, 32> items;
      items.template set_slice<0>(shuffle(acc[0][r], from));
      items.template set_slice<16>(shuffle(acc[1][r], from));
      store(r, fold(items));
    }
  }
};

// q6_k: all arithmetic is in float. One sub-group computes a row, so there is no local memory and no barrier.
template <typename Format, typename T>
struct single_sub_group_kernel : row_arguments<T> {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = false;
  static constexpr int dimensions = 1;

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler&) { this->take(way, on); }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint8_t* row = this->weight + item.group() * blocks() * Format::bytes;
    float total;
    if constexpr (Item::lanes > 1) {
      total = fold(whole_row(item, row));
    } else {
      const int l = static_cast<int>(item.template lane<32>()), p = l % 16;
      simd<float, 1> acc;
      for (uint32_t b = l / 16; b < blocks(); b += 2) {
        acc += term<1>(row + size_t(b) * Format::bytes, p, [&](int k) { return simd<float, 1>(input(b, p, k)); });
      }
      total = butterfly_sum<32>(item, acc);
    }
    if (item.template lane<32>() == 0) this->y[item.group()] = convert<T>(simd<float, 1>(total))[0];
  }

 private:
  uint32_t blocks() const { return static_cast<uint32_t>(this->state_size / 256); }

  // Input k is element k % 4 of stretch k / 4.
  float input(uint32_t b, int p, int k) const {
    return convert<float>(simd<T, 1>::load(this->x + 256ull * b + Format::element(p, k / 4, k % 4)))[0];
  }

  template <int N, typename X>
  ORRERY_INLINE static simd<float, N> term(const uint8_t* block, int p, X x) {
    using F = simd<float, N>;
    const typename Format::template part<N> part(block, p);
    const F d(Format::d(block));
    F scale[4], sum;
    for (int s = 0; s < 4; ++s) scale[s] = part.scale(s);
    for_each_constant<4>([&](auto i) ORRERY_INLINE {
      F product[4];
      for_each_constant<4>(
          [&](auto s) ORRERY_INLINE { product[s] = ((x(4 * s + i) * d) * scale[s]) * part.template code<s, i>(); });
      const F four = ((product[0] + product[1]) + product[2]) + product[3];
      sum = i == 0 ? four : sum + four;
    });
    return sum;
  }

  template <typename Item>
  simd<float, 32> whole_row(const Item& item, const uint8_t* row) const {
    const float* x = item.template shared_by_launch<float>(size_t(blocks()) * 256, [&](float* to) {
      for (uint32_t b = 0; b < blocks(); ++b) {
        for (int k = 0; k < 16; ++k) {
          for (int p = 0; p < 16; ++p) *to++ = input(b, p, k);
        }
      }
    });
    simd<float, 16> acc[2];
    const uint64_t row_bytes = uint64_t(blocks()) * Format::bytes;
    for (uint32_t b = 0; b < blocks(); ++b) {
      const uint8_t* block = row + size_t(b) * Format::bytes;
      prefetch<Format::bytes>(block + row_bytes);
      const float* at = x + size_t(b) * 256;
      acc[b % 2] += term<16>(block, 0, [&](int k) ORRERY_INLINE { return simd<float, 16>::load(at + 16 * k); });
    }
    simd<float, 32> lanes;
    lanes.template set_slice<0>(acc[0]);
    lanes.template set_slice<16>(acc[1]);
    return lanes;
  }
};

}  // namespace orrery
