// Values and bits of one type as those of another.
#pragma once

#include "vector.h"

namespace orrery {

// Converts values; to half and bfloat16 with rounding to nearest even, to integers with truncation.
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
    const auto lanes_from = [&](int i) -> machine::vector<SR, W> {
      machine::vector<SA, W> x;
      std::memcpy(&x, reinterpret_cast<const char*>(&a.v) + i * sizeof(SA), sizeof x);
      return detail::rounded<To, W>(machine::convert<SR, SA, W>(x));
    };
    if constexpr (R::W == 2 * W && W * sizeof(SR) >= 16) {
      // In a register: through memory, a load of the whole vector would wait for both stores.
      ORRERY_UNROLL for (int c = 0; c < R::chunks; ++c) {
        r.v[c] = machine::join<SR, W>(lanes_from(2 * c * W), lanes_from((2 * c + 1) * W));
      }
    } else {
      ORRERY_UNROLL for (int i = 0; i < N; i += W) {
        const auto y = lanes_from(i);
        std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof(SR), &y, sizeof y);
      }
    }
    return r;
  }
}

// Converts floats that are each exactly a T, without rounding.
template <typename T, int N>
inline simd<T, N> convert_exact(const simd<float, N>& a) {
  if constexpr (std::is_same_v<register_type<T>, float>) {
    simd<T, N> r;
    ORRERY_UNROLL for (int c = 0; c < r.chunks; ++c) r.v[c] = a.v[c];
    return r;
  } else {
    return convert<T>(a);
  }
}

// Converts a scalar to T: through float for half and bfloat16.
template <typename T, typename From>
inline T to(From value) {
  return simd<T, 1>(T(static_cast<register_type<T>>(value)))[0];
}

// The same bits in lanes of another type; a shorter type has more lanes.
template <typename To, typename From, int N>
inline auto bit_cast(const simd<From, N>& a) {
  static_assert(!is_widened<To> && !is_widened<From>);
  simd<To, N* int(sizeof(From)) / int(sizeof(To))> r;
  static_assert(sizeof r.v == sizeof a.v);
  std::memcpy(&r.v, &a.v, sizeof r.v);
  return r;
}

// Loads and stores integers of another size, a machine vector of the registers' type at a time.
template <typename To, int N, typename From>
ORRERY_INLINE inline simd<To, N> load_converted(const From* p) {
  static_assert(std::is_integral_v<To> && std::is_integral_v<From>);
  simd<To, N> r;
  constexpr int W = simd<To, N>::W;
  ORRERY_UNROLL for (int c = 0; c < r.chunks; ++c) {
    r.v[c] = machine::convert<To, From, W>(machine::load<From, W>(p + c * W));
  }
  return r;
}
template <typename To, typename From, int N>
ORRERY_INLINE inline void store_converted(To* p, const simd<From, N>& a) {
  static_assert(std::is_integral_v<To> && std::is_integral_v<From>);
  constexpr int W = simd<From, N>::W;
  ORRERY_UNROLL for (int c = 0; c < a.chunks; ++c) {
    machine::store<To, W>(p + c * W, machine::convert<To, From, W>(a.v[c]));
  }
}

// Applies f to as many lanes at a time as fit into a vector as doubles; f maps simd<float, M> to simd<float, M>, M at
// most N.
template <int N, typename F>
inline simd<float, N> in_double_parts(const simd<float, N>& a, F f) {
  constexpr int M = simd<double, N>::W;
  simd<float, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; i += M) {
    simd<float, M> part;
    std::memcpy(&part.v, reinterpret_cast<const char*>(&a.v) + i * sizeof(float), sizeof part.v);
    part = f(part);
    std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof(float), &part.v, sizeof part.v);
  }
  return r;
}

}  // namespace orrery
