// The activation of a gated layer.
#pragma once

#include <bit>
#include <type_traits>

#include "includes/native.h"
#include "includes/simd.h"

namespace orrery {

// The cubic term is not multiplied by the first constant: this is not the textbook's form.
template <int N>
simd<float, N> gelu(const simd<float, N>& g) {
  using F = simd<float, N>;
  const F inner = F(std::bit_cast<float>(0x3F4C422A)) * g + F(std::bit_cast<float>(0x3D372713)) * native::pow(g, 3.0f);
  return F(0.5f) * g * (F(1.0f) + native::tanh(inner));
}

// act(gate) * up, in float; of doubles only the product is in double.
template <typename T, int N>
simd<T, N> gated(int32_t act_type, const simd<T, N>& gate, const simd<T, N>& up) {
  using F = simd<float, N>;
  const bool silu = act_type == 0;
  const F g = convert<float>(gate);
  if constexpr (std::is_same_v<T, double>) {
    return convert<double>(silu ? g / (F(1.0f) + native::exp(-g)) : gelu(g)) * up;
  } else {
    const F u = convert<float>(up);
    return convert<T>(silu ? g * u / (F(1.0f) + native::exp(-g)) : gelu(g) * u);
  }
}

// Rows whose sums are those of R gates, then of R ups; the first `live` of them are stored.
template <int R, typename T>
void store_gated(int32_t act_type, const T (&sums)[2 * R], T* result, int64_t live) {
  simd<T, R> gate, up;  // set lane by lane: a load of what was stored in parts waits for all stores before it
  ORRERY_UNROLL for (int r = 0; r < R; ++r) gate.set(r, sums[r]);
  ORRERY_UNROLL for (int r = 0; r < R; ++r) up.set(r, sums[R + r]);
  gated(act_type, gate, up).store(result, mask<R>::first(live));
}

}  // namespace orrery
