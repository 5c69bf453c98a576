// The device's native functions, in float: base-2 exponential, sine, cosine, square roots.
//
// On the host they are polynomials in double, rounded once to float: the nearest float but for about one argument in a
// hundred million, whatever the number of lanes. A device has its own, and need not have doubles.
#pragma once

#include <cmath>
#include <sycl/sycl.hpp>

#include "simd/shuffle.h"

namespace orrery::native {

#ifdef SYCL_EXT_ORRERY_HOST

namespace detail {

// Adding and subtracting it rounds a double to a whole number; the low bits of the sum are that number.
constexpr double whole = 0x1.8p52;

template <int N, size_t K>
inline simd<double, N> polynomial(const simd<double, N>& x, const double (&c)[K]) {
  using D = simd<double, N>;
  D r = x * D(c[K - 1]) + D(c[K - 2]);
  ORRERY_UNROLL for (size_t k = 3; k <= K; ++k) r = r * x + D(c[K - k]);
  return r;
}

// 2^x = 2^n * 2^f with n whole and f in [-1/2, 1/2]. The last conversion to float makes infinities and subnormals.
template <int N>
inline simd<double, N> exp2(simd<double, N> x) {
  using D = simd<double, N>;
  using U = simd<uint64_t, N>;
  constexpr double g[] = {0.6931471805599462,     0.24022650695910075,    0.05550410866465167,
                          0.009618129107618665,   0.0013333558200794592,  0.00015403530424776529,
                          1.5252672924850737e-05, 1.3215451633221434e-06, 1.0205905413765595e-07,
                          7.070977866508138e-09};
  const D lowest(-1000.0), highest(1000.0), one(1.0);
  x = select_less(x, lowest, lowest, x);  // a NaN stays
  x = select_less(highest, x, highest, x);
  const D sum = x + D(whole), n = sum - D(whole), f = x - n;
  const U exponent = (bit_cast<uint64_t>(sum) + U(1023)) << 52;
  return (f * polynomial(f, g) + one) * bit_cast<double>(exponent);
}

constexpr double widest_angle = 0x1p24;

// sin(x + Turn * pi / 2) for |x| up to widest_angle. pi / 2 is taken off in two steps, the first of them exact.
template <int Turn, int N>
inline simd<double, N> sine(const simd<double, N>& x) {
  using D = simd<double, N>;
  using U = simd<uint64_t, N>;
  constexpr double s[] = {-0.16666666666666666, 0.0083333333333307,      -0.00019841269836385435,
                          2.7557315910939e-06,  -2.5051092308431318e-08, 1.5915309183057952e-10};
  constexpr double c[] = {0.041666666666666664,    -0.0013888888888887241, 2.480158729853226e-05,
                          -2.7557317151858866e-07, 2.0876121534608454e-09, -1.1380868171449914e-11};
  const D sum = x * D(0.6366197723675814) + D(whole), n = sum - D(whole);
  const D r = x - n * D(1.570796325802803) - n * D(9.920935796805404e-10), z = r * r;
  const U quarter = bit_cast<uint64_t>(sum) + U(Turn);
  const D sin = (z * polynomial(z, s) + D(1.0)) * r, cos = D(1.0) - z * D(0.5) + z * z * polynomial(z, c);
  const D value = select_bits(quarter & U(1), cos, sin);
  return bit_cast<double>(bit_cast<uint64_t>(value) ^ ((quarter & U(2)) << 62));
}

template <int N, typename F>
inline simd<float, N> through_double(const simd<float, N>& x, F f) {
  return in_double_parts(x, [&](const auto& part) { return convert<float>(f(convert<double>(part))); });
}

template <int N>
inline bool all_within(const simd<float, N>& x, float limit) {
  bool within = true;
  for (int i = 0; i < N; ++i) within &= -limit <= x[i] && x[i] <= limit;
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
  return detail::through_double(x, [](const auto& a) { return detail::exp2(a); });
}

template <int N>
inline simd<float, N> sin(const simd<float, N>& x) {
  if (!detail::all_within(x, detail::widest_angle)) return detail::per_lane(x, [](double a) { return std::sin(a); });
  return detail::through_double(x, [](const auto& a) { return detail::sine<0>(a); });
}

template <int N>
inline simd<float, N> cos(const simd<float, N>& x) {
  if (!detail::all_within(x, detail::widest_angle)) return detail::per_lane(x, [](double a) { return std::cos(a); });
  return detail::through_double(x, [](const auto& a) { return detail::sine<1>(a); });
}

inline float exp2(float x) { return exp2(simd<float, 1>(x))[0]; }
inline float sqrt(float x) { return std::sqrt(x); }
inline float rsqrt(float x) { return 1.0f / std::sqrt(x); }

#else

inline float exp2(float x) { return sycl::native::exp2(x); }
inline float sqrt(float x) { return sycl::native::sqrt(x); }
inline float rsqrt(float x) { return sycl::native::rsqrt(x); }

template <int N>
inline simd<float, N> exp2(const simd<float, N>& x) {
  simd<float, N> r;
  for (int i = 0; i < N; ++i) r.set(i, sycl::native::exp2(x[i]));
  return r;
}

template <int N>
inline simd<float, N> sin(const simd<float, N>& x) {
  simd<float, N> r;
  for (int i = 0; i < N; ++i) r.set(i, sycl::native::sin(x[i]));
  return r;
}

template <int N>
inline simd<float, N> cos(const simd<float, N>& x) {
  simd<float, N> r;
  for (int i = 0; i < N; ++i) r.set(i, sycl::native::cos(x[i]));
  return r;
}

#endif

}  // namespace orrery::native
