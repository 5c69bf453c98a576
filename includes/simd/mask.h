// One truth value per lane.
#pragma once

#include <cstdint>

namespace orrery {

// N truth values, one bit per lane. N is at most 64.
template <int N>
struct mask {
  static_assert(N <= 64);
  static constexpr uint64_t all_bits = N == 64 ? ~uint64_t(0) : (uint64_t(1) << N) - 1;
  uint64_t bits = 0;

  static mask all() { return {all_bits}; }
  // Lanes below `count` (which may be negative or exceed N).
  static mask first(int64_t count) {
    if (count <= 0) return {0};
    return count >= N ? all() : mask{(uint64_t(1) << count) - 1};
  }
  bool operator[](int lane) const { return (bits >> lane) & 1; }
  bool any() const { return bits != 0; }
  bool every() const { return bits == all_bits; }
  mask operator&(mask o) const { return {bits & o.bits}; }
  mask operator|(mask o) const { return {bits | o.bits}; }
  mask operator!() const { return {~bits & all_bits}; }
};

}  // namespace orrery
