// Rounded operations and nothing else: the most that a kernel of them can reach on this machine.
#include "includes/simd.h"

namespace {

// Multiplies and adds 32 lanes, a register of halves, at a time, `count` times each, into eight sums, so that no
// operation waits for the one before.
template <typename T>
float multiply_and_add(uint64_t count) {
  using vector = orrery::simd<T, 32>;
  constexpr int sums = 8;
  vector sum[sums];
  const vector a(T(0.5f)), b(T(0.25f));
  for (uint64_t i = 0; i < count; i += sums) {
    ORRERY_UNROLL for (int s = 0; s < sums; ++s) {
      sum[s] += orrery::hide_address(a) * b;  // else the product is computed only once
    }
  }
  float total = 0;
  for (const vector& s : sum) total += static_cast<float>(orrery::fold(s));
  return total;
}

}  // namespace

extern "C" float multiply_and_add_float16(uint64_t count) { return multiply_and_add<c10::Half>(count); }
extern "C" float multiply_and_add_float32(uint64_t count) { return multiply_and_add<float>(count); }
