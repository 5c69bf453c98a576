// Values and bits of one type as those of another.
#pragma once

#include "vector.h"

namespace orrery {

// Value conversion; to half and bfloat16 it rounds to nearest even, to integers it truncates.
template <typename To, typename From, int N>
inline simd<To, N> convert(const simd<From, N>& a) {
  using A = simd<From, N>;
  using R = simd<To, N>;
  if constexpr (std::is_same_v<To, From>) {
    return a;
  } else {
    R r;
    constexpr int W = A::W < R::W ? A::W : R::W;
    using SA = typename A::S;
    using SR = typename R::S;
    ORRERY_UNROLL for (int i = 0; i < N; i += W) {
      detail::vector_t<SA, W> x;
      std::memcpy(&x, reinterpret_cast<const char*>(&a.v) + i * sizeof(SA), sizeof x);
      detail::vector_t<SR, W> y;
      y = detail::convert_vector<SR, SA, W>(x);
      y = detail::rounded<To, W>(y);
      std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof(SR), &y, sizeof y);
    }
    return r;
  }
}

// The scalar in T's own arithmetic: through float for half and bfloat16.
template <typename T, typename From>
inline T to(From value) {
  return simd<T, 1>(T(static_cast<held_t<T>>(value)))[0];
}

template <typename To, typename From, int N>
inline simd<To, N> bit_cast(const simd<From, N>& a) {
  static_assert(sizeof(To) == sizeof(From) && !is_narrow_float<To> && !is_narrow_float<From>);
  simd<To, N> r;
  std::memcpy(&r.v, &a.v, sizeof r.v);
  return r;
}

// Floats that each are exactly a T, so that nothing is rounded.
template <typename T, int N>
inline simd<T, N> exactly(const simd<float, N>& a) {
  if constexpr (is_narrow_float<T>) {
    simd<T, N> r;
    std::memcpy(&r.v, &a.v, sizeof r.v);
    return r;
  } else {
    return convert<T>(a);
  }
}

}  // namespace orrery
