// What the fused projections do with their sums.
#pragma once

#include "fused/operands.h"
#include "includes/native.h"
#include "includes/simd.h"

namespace orrery {

// The two rows of a group, elements i and i + half_head of a head.
struct rotary_pair {
  uint32_t head, i;
  uint64_t first;  // row of the weight

  rotary_pair(const projections& to, uint64_t group)
      : head(static_cast<uint32_t>(group) / to.half_head),
        i(static_cast<uint32_t>(group) % to.half_head),
        first(head * to.head_size + i) {}

  // How many rows further on the next group's pair lies.
  uint64_t next(const projections& to) const { return i + 1 < to.half_head ? 1 : to.head_size - i; }
};

// Adds the bias, turns query and key by the position, and stores. The angle is the first position's.
template <bool HasBias, typename T>
void store_pair(const projections& to, uint64_t p, const rotary_pair& pair, const T (&sums)[2]) {
  using V = simd<T, 1>;
  using F = simd<float, 1>;
  const projection& mine = to.of[p];
  V x1(sums[0]), x2(sums[1]);
  if constexpr (HasBias) {
    const T* bias = static_cast<const T*>(mine.bias) + pair.first;
    x1 += V::load(bias);
    x2 += V::load(bias + to.half_head);
  }
  T* y = static_cast<T*>(mine.out) + pair.head * mine.head_stride + mine.seq_offset + pair.i;
  if (p != projections::value) {
    const F angle = native::pown(F(to.theta), static_cast<int>(pair.i)) * F(static_cast<float>(to.position_ids[0]));
    const F sn = native::sin(angle), cs = native::cos(angle), a = convert<float>(x1), b = convert<float>(x2);
    x1 = convert<T>(cs * a - sn * b);
    x2 = convert<T>(cs * b + sn * a);
  }
  x1.store(y);
  x2.store(y + to.half_head);
}

}  // namespace orrery
