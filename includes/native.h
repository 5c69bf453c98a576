// The device's native functions, in float: base-2 exponential, sine, cosine, square roots.
//
// On vectors of the compiler they are polynomials in double, rounded once to float: the nearest float but for about one
// argument in a hundred million, whatever the number of lanes.
#pragma once

#include "simd.h"

namespace orrery::native {
namespace detail {

using orrery::detail::vector_t;

// Lanes that are computed at once in double.
template <int N>
constexpr int double_lanes = orrery::detail::chunk_lanes<double, N>();

// Adding and subtracting it rounds a double to a whole number; the low bits of the sum are that number.
constexpr double whole = 0x1.8p52;

template <typename To, typename From>
inline To bits_of(const From& from) {
  To to;
  static_assert(sizeof to == sizeof from);
  std::memcpy(&to, &from, sizeof to);
  return to;
}

template <typename D, size_t K>
inline D polynomial(D x, const double (&c)[K]) {
  D r = x * c[K - 1] + c[K - 2];
  ORRERY_UNROLL for (size_t k = 3; k <= K; ++k) r = r * x + c[K - k];
  return r;
}

// 2^x = 2^n * 2^f with n whole and f in [-1/2, 1/2]. The last conversion to float makes infinities and subnormals.
template <int W>
inline vector_t<double, W> exp2(vector_t<double, W> x) {
  using D = vector_t<double, W>;
  constexpr double g[] = {0.6931471805599462,     0.24022650695910075,    0.05550410866465167,
                          0.009618129107618665,   0.0013333558200794592,  0.00015403530424776529,
                          1.5252672924850737e-05, 1.3215451633221434e-06, 1.0205905413765595e-07,
                          7.070977866508138e-09};
  const D lowest = D{} - 1000.0, highest = D{} + 1000.0;
  x = x < lowest ? lowest : x;  // a NaN stays
  x = x > highest ? highest : x;
  const D sum = x + whole, n = sum - whole, f = x - n;
  using U = vector_t<uint64_t, W>;
  const U exponent = (bits_of<U>(sum) + 1023) << 52;
  return (f * polynomial(f, g) + 1.0) * bits_of<D>(exponent);
}

constexpr double widest_angle = 0x1p24;

// sin(x + Turn * pi / 2) for |x| up to widest_angle. pi / 2 is taken off in two steps, the first of them exact.
template <int Turn, int W>
inline vector_t<double, W> sine(vector_t<double, W> x) {
  using D = vector_t<double, W>;
  using U = vector_t<uint64_t, W>;
  constexpr double s[] = {-0.16666666666666666, 0.0083333333333307,      -0.00019841269836385435,
                          2.7557315910939e-06,  -2.5051092308431318e-08, 1.5915309183057952e-10};
  constexpr double c[] = {0.041666666666666664,    -0.0013888888888887241, 2.480158729853226e-05,
                          -2.7557317151858866e-07, 2.0876121534608454e-09, -1.1380868171449914e-11};
  const D sum = x * 0.6366197723675814 + whole, n = sum - whole;
  const D r = x - n * 1.570796325802803 - n * 9.920935796805404e-10, z = r * r;
  const U quarter = bits_of<U>(sum) + Turn;
  const D sin = (z * polynomial(z, s) + 1.0) * r, cos = 1.0 - z * 0.5 + z * z * polynomial(z, c);
  const D value = (quarter & 1) != 0 ? cos : sin;
  return bits_of<D>(bits_of<U>(value) ^ ((quarter & 2) << 62));
}

template <int N, typename F>
inline simd<float, N> through_double(const simd<float, N>& x, F f) {
  constexpr int W = double_lanes<N>;
  simd<float, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; i += W) {
    vector_t<float, W> part;
    std::memcpy(&part, reinterpret_cast<const char*>(&x.v) + i * sizeof(float), sizeof part);
    if constexpr (W == 1) {
      part = static_cast<float>(f(static_cast<double>(part)));
    } else {
      part = __builtin_convertvector(f(__builtin_convertvector(part, vector_t<double, W>)), vector_t<float, W>);
    }
    std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof(float), &part, sizeof part);
  }
  return r;
}

template <int N>
inline bool all_within(const simd<float, N>& x, float limit) {
  bool within = true;
  for (int c = 0; c < simd<float, N>::chunks; ++c) {
    for (int i = 0; i < simd<float, N>::W; ++i) within &= std::fabs(x.held_at(c * simd<float, N>::W + i)) <= limit;
  }
  return within;
}

template <int N, typename F>
inline simd<float, N> per_lane(const simd<float, N>& x, F f) {
  simd<float, N> r;
  for (int i = 0; i < N; ++i) r.set(i, static_cast<float>(f(static_cast<double>(x[i]))));
  return r;
}

}  // namespace detail

template <int N>
inline simd<float, N> exp2(const simd<float, N>& x) {
  constexpr int W = detail::double_lanes<N>;
  return detail::through_double(x, [](detail::vector_t<double, W> a) { return detail::exp2<W>(a); });
}

template <int N>
inline simd<float, N> sin(const simd<float, N>& x) {
  constexpr int W = detail::double_lanes<N>;
  if (!detail::all_within(x, detail::widest_angle)) return detail::per_lane(x, [](double a) { return std::sin(a); });
  return detail::through_double(x, [](detail::vector_t<double, W> a) { return detail::sine<0, W>(a); });
}

template <int N>
inline simd<float, N> cos(const simd<float, N>& x) {
  constexpr int W = detail::double_lanes<N>;
  if (!detail::all_within(x, detail::widest_angle)) return detail::per_lane(x, [](double a) { return std::cos(a); });
  return detail::through_double(x, [](detail::vector_t<double, W> a) { return detail::sine<1, W>(a); });
}

inline float exp2(float x) { return exp2(simd<float, 1>(x))[0]; }
inline float sqrt(float x) { return std::sqrt(x); }
inline float rsqrt(float x) { return 1.0f / std::sqrt(x); }

}  // namespace orrery::native
