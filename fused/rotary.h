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

// Cosines and sines of a head's pairs from `i` on, at the first position.
template <int N>
struct rotary_turns {
  simd<float, N> cs, sn;

  rotary_turns(const projections& to, uint32_t i) {
    simd<float, N> angle;
    for (int k = 0; k < N; ++k) {
      angle.set(k, native::pown(simd<float, 1>(to.theta), static_cast<int>(i + k))[0]);
    }
    angle *= simd<float, N>(static_cast<float>(to.position_ids[0]));
    cs = native::cos(angle);
    sn = native::sin(angle);
  }
};
struct rotary_turn {
  float cs, sn;

  static rotary_turn of(const projections& to, uint32_t i) {
    const rotary_turns<1> one(to, i);
    return {one.cs[0], one.sn[0]};
  }
};

// Adds the bias, turns query and key, and stores. `turn` is called for those alone.
template <bool HasBias, typename T, typename Turn>
void store_pair(const projections& to, uint64_t p, const rotary_pair& pair, const T (&sums)[2], Turn turn) {
  using V = simd<T, 1>;
  using F = simd<float, 1>;
  const projection& mine = to.of[p];
  V x1(sums[0]), x2(sums[1]);
  if constexpr (HasBias) {
    const T* bias = static_cast<const T*>(mine.bias) + pair.first;
    x1 += V::load(bias);
    x2 += V::load(bias + to.half_head);
  }
  if (p != projections::value) {
    const rotary_turn by = turn();
    const F a = convert<float>(x1), b = convert<float>(x2), cs(by.cs), sn(by.sn);
    x1 = convert<T>(cs * a - sn * b);
    x2 = convert<T>(cs * b + sn * a);
  }
  T* y = static_cast<T*>(mine.out) + pair.head * mine.head_stride + mine.seq_offset + pair.i;
  x1.store(y);
  x2.store(y + to.half_head);
}

}  // namespace orrery
