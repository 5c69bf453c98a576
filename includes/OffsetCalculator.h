// Where the elements of several tensors lie, by their index in a common iteration, without divisions on the device.
#pragma once

#include <ATen/TensorIterator.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <type_traits>

namespace orrery {

// Division by a number that is known before the launch: a product, a sum and a shift.
//
// With s = shift and m = 2^32 + m1, m = floor(2^32 * 2^s / d) + 1, so m d = 2^(32 + s) + e with 0 < e <= d <= 2^s. For
// n = q d + r that makes m n / 2^(32 + s) = n / d + (e n / d) / 2^(32 + s), and the second term is below 1 / d for
// every n of 32 bits: the quotient is q. It needs the 33rd bit of the sum; in 32 bits, n could have 31 only.
template <typename Value>
struct IntDivider {
  static_assert(sizeof(Value) == 4);

  struct DivMod {
    Value div, mod;
  };

  IntDivider() = default;
  explicit IntDivider(Value d) : divisor(d) {
    while ((uint64_t(1) << shift) < d) ++shift;
    m1 = static_cast<Value>((uint64_t(1) << 32) * ((uint64_t(1) << shift) - d) / d + 1);
  }

  Value div(Value n) const {
    const uint64_t high = (uint64_t(m1) * n) >> 32;
    return static_cast<Value>((high + n) >> shift);
  }
  Value mod(Value n) const { return n - div(n) * divisor; }
  DivMod divmod(Value n) const {
    const Value q = div(n);
    return {q, n - q * divisor};
  }

  Value divisor = 1, m1 = 1, shift = 0;
};

// Element offsets of NARGS tensors. Dimension 0 runs fastest.
template <int NARGS, typename index_t = uint32_t, bool signed_strides = false>
struct OffsetCalculator {
  static constexpr int MAX_DIMS = 12;
  using stride_t = std::conditional_t<signed_strides, std::make_signed_t<index_t>, index_t>;
  using offset_type = std::array<stride_t, NARGS>;

  // What is left of the index after the last dimension counts for nothing: beyond the iteration it begins again.
  offset_type offsets(index_t linear_index) const {
    offset_type offset{};
    for (int d = 0; d < MAX_DIMS; ++d) {
      if (d == dims) break;
      const auto [quotient, remainder] = sizes[d].divmod(linear_index);
      linear_index = quotient;
      for (int a = 0; a < NARGS; ++a) offset[a] += remainder * strides[d][a];
    }
    return offset;
  }

  // Whether in every tensor each `length` elements, from a multiple of `length` on, are neighbours.
  bool has_runs_of(index_t length) const {
    if (dims == 0) return length == 1;
    return sizes[0].divisor % length == 0 && std::all_of(strides[0], strides[0] + NARGS, [](auto s) { return s == 1; });
  }

  int dims = 0;
  IntDivider<index_t> sizes[MAX_DIMS];
  stride_t strides[MAX_DIMS][NARGS] = {};
};

// Of the iterator's first N tensors.
template <int N, typename index_t = uint32_t, bool signed_strides = false>
OffsetCalculator<N, index_t, signed_strides> make_element_offset_calculator(const at::TensorIteratorBase& iter) {
  OffsetCalculator<N, index_t, signed_strides> made;
  TORCH_CHECK(N <= iter.ntensors());
  TORCH_CHECK(iter.ndim() <= made.MAX_DIMS, "tensor has too many (>", made.MAX_DIMS, ") dims");
  made.dims = iter.ndim();
  for (int d = 0; d < made.dims; ++d) {
    made.sizes[d] = IntDivider<index_t>(static_cast<index_t>(std::max<int64_t>(iter.shape()[d], 1)));
    for (int a = 0; a < N; ++a) made.strides[d][a] = iter.strides(a)[d] / iter.element_size(a);
  }
  return made;
}

}  // namespace orrery
