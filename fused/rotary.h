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

// Cosines and sines of N of a head's pairs, from the i-th on, at the first position.
template <int N>
struct rotary_turns {
  simd<float, N> cs, sn;

  static rotary_turns of(const projections& to, uint32_t i) {
    simd<float, N> angle;
    for (int k = 0; k < N; ++k) {
      angle.set(k, native::pown(simd<float, 1>(to.theta), static_cast<int>(i + k))[0]);
    }
    angle *= simd<float, N>(static_cast<float>(to.position_ids[0]));
    return {native::cos(angle), native::sin(angle)};
  }
};

// Stores the sums x1 and x2 of `live` neighbouring pairs of a head, with the bias added, and turned if they are of
// query or key. turns() is called for those alone.
template <bool HasBias, typename T, int N, typename Turns>
void store_pairs(const projections& to, uint64_t p, const rotary_pair& pair, uint64_t live, simd<T, N> x1,
                 simd<T, N> x2, Turns turns) {
  using F = simd<float, N>;
  const projection& mine = to.of[p];
  const auto some = mask<N>::first(static_cast<int64_t>(live));
  if constexpr (HasBias) {
    const T* bias = static_cast<const T*>(mine.bias) + pair.first;
    x1 += simd<T, N>::load(bias, some);
    x2 += simd<T, N>::load(bias + to.half_head, some);
  }
  if (p != projections::value) {
    const rotary_turns<N> by = turns();
    const F a = convert<float>(x1), b = convert<float>(x2);
    x1 = convert<T>(by.cs * a - by.sn * b);
    x2 = convert<T>(by.cs * b + by.sn * a);
  }
  T* y = static_cast<T*>(mine.out) + pair.head * mine.head_stride + mine.seq_offset + pair.i;
  x1.store(y, some);
  x2.store(y + to.half_head, some);
}

}  // namespace orrery
