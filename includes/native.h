// The device's native functions, in float: exponentials, sine, cosine, square roots; and the hyperbolic tangent and
// powers, which have no native form.
//
// On the host they are computed in double and rounded once to float: the nearest float but for about one argument in a
// hundred million (exp and pown: in some million), whatever the number of lanes. A device has its own, and need not
// have doubles.
#pragma once

#include <cmath>
#include <sycl/sycl.hpp>

#include "simd/shuffle.h"

namespace orrery::native {

namespace detail {

template <int N, typename F>
inline simd<float, N> per_lane(const simd<float, N>& x, F f) {
  simd<float, N> r;
  for (int i = 0; i < N; ++i) r.set(i, f(x[i]));
  return r;
}

}  // namespace detail

#ifdef SYCL_EXT_ORRERY_HOST

namespace detail {

// Adding and subtracting it rounds a double to a whole number; the low bits of the sum are that number.
constexpr double whole = 0x1.8p52;
constexpr double log2_of_e = 1.4426950408889634;

template <int N, size_t K>
inline simd<double, N> polynomial(const simd<double, N>& x, const double (&c)[K]) {
  using D = simd<double, N>;
  D r = x * D(c[K - 1]) + D(c[K - 2]);
  ORRERY_UNROLL for (size_t k = 3; k <= K; ++k) r = r * x + D(c[K - k]);
  return r;
}

// The same in the shortest chain of dependent operations, with some more of them.
template <int N, size_t K>
inline simd<double, N> short_polynomial(simd<double, N> x, const double (&c)[K]) {
  using D = simd<double, N>;
  D part[K];
  ORRERY_UNROLL for (size_t i = 0; i < K; ++i) part[i] = D(c[i]);
  ORRERY_UNROLL for (size_t left = K; left > 1; left = (left + 1) / 2, x *= x) {
    ORRERY_UNROLL for (size_t i = 0; i < left / 2; ++i) part[i] = part[2 * i + 1] * x + part[2 * i];
    if (left % 2 != 0) part[left / 2] = part[left - 1];
  }
  return part[0];
}

// 2^x = 2^n * 2^f with n whole and f in [-1/2, 1/2], of which f * polynomial(f, of_fraction) is 2^f - 1. `scale` is
// 2^n.
constexpr double of_fraction[] = {0.6931471805599462,     0.24022650695910075,    0.05550410866465167,
                                  0.009618129107618665,   0.0013333558200794592,  0.00015403530424776529,
                                  1.5252672924850737e-05, 1.3215451633221434e-06, 1.0205905413765595e-07,
                                  7.070977866508138e-09};
template <int N>
struct split_power {
  simd<double, N> scale, f;

  explicit split_power(const simd<double, N>& x) {
    using D = simd<double, N>;
    using U = simd<uint64_t, N>;
    const D sum = x + D(whole), n = sum - D(whole);
    f = x - n;
    scale = bit_cast<double>((bit_cast<uint64_t>(sum) + U(1023)) << 52);
  }
};

// No further from 0 than 1000, where the last conversion to float makes infinities and zeros; a NaN stays.
template <int N>
inline simd<double, N> within_1000(simd<double, N> x) {
  using D = simd<double, N>;
  const D lowest(-1000.0), highest(1000.0);
  x = select_less(x, lowest, lowest, x);
  return select_less(highest, x, highest, x);
}

template <int N>
inline simd<double, N> exp2(const simd<double, N>& x) {
  const split_power<N> p(within_1000(x));
  return (p.f * polynomial(p.f, of_fraction) + simd<double, N>(1.0)) * p.scale;
}

// Alone at the end of a row, it is waited for: the short chain.
template <int N>
inline simd<double, N> exp(const simd<double, N>& x) {
  using D = simd<double, N>;
  const split_power<N> p(within_1000(x * D(log2_of_e)));
  return p.f * p.scale * short_polynomial(p.f, of_fraction) + p.scale;
}

// e^x - 1, to the last bits of a double also where x is small: the same, with 1 taken off 2^n. x is not beyond 700.
template <int N>
inline simd<double, N> exp_less_1(const simd<double, N>& x) {
  using D = simd<double, N>;
  const split_power<N> p(x * D(log2_of_e));
  return p.f * p.scale * short_polynomial(p.f, of_fraction) + (p.scale - D(1.0));
}

template <int N>
inline simd<double, N> tanh(const simd<double, N>& x) {
  using D = simd<double, N>;
  using U = simd<uint64_t, N>;
  const U sign = bit_cast<uint64_t>(x) & U(uint64_t(1) << 63);
  const D size = bit_cast<double>(bit_cast<uint64_t>(x) ^ sign), widest(20.0);  // from there on it is 1
  const D e = exp_less_1(select_less(widest, size, widest, size) * D(2.0));
  return bit_cast<double>(bit_cast<uint64_t>(e / (e + D(2.0))) | sign);
}

// By squares. The relative error grows with n, to n / 2^53.
template <int N>
inline simd<double, N> pown(simd<double, N> x, int n) {
  using D = simd<double, N>;
  D power(1.0);
  for (uint32_t left = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n); left != 0; left >>= 1) {
    if (left & 1) power *= x;
    x *= x;
  }
  return n < 0 ? D(1.0) / power : power;
}

constexpr float widest_angle = 0x1p24f;

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

inline bool is_near(float angle) { return -widest_angle <= angle && angle <= widest_angle; }

// `far` is for the angles that are not near.
template <int Turn, int N, typename F>
inline simd<float, N> sine_of_any(const simd<float, N>& x, F far) {
  bool near = true;
  for (int i = 0; i < N; ++i) near &= is_near(x[i]);
  if (near) return through_double(x, [](const auto& a) { return sine<Turn>(a); });
  return per_lane(x, [&](float a) {
    return is_near(a) ? static_cast<float>(sine<Turn>(simd<double, 1>(a))[0]) : static_cast<float>(far(double(a)));
  });
}

}  // namespace detail

template <int N>
inline simd<float, N> exp2(const simd<float, N>& x) {
  return detail::through_double(x, [](const auto& a) { return detail::exp2(a); });
}

template <int N>
inline simd<float, N> exp(const simd<float, N>& x) {
  return detail::through_double(x, [](const auto& a) { return detail::exp(a); });
}

template <int N>
inline simd<float, N> tanh(const simd<float, N>& x) {
  return detail::through_double(x, [](const auto& a) { return detail::tanh(a); });
}

template <int N>
inline simd<float, N> pown(const simd<float, N>& x, int n) {
  return detail::through_double(x, [n](const auto& a) { return detail::pown(a, n); });
}

// A whole power of up to 64 is the pown of the same number.
template <int N>
inline simd<float, N> pow(const simd<float, N>& x, float y) {
  if (y == std::trunc(y) && std::abs(y) <= 64.0f) return pown(x, static_cast<int>(y));
  return detail::per_lane(x, [y](float a) { return static_cast<float>(std::pow(double(a), double(y))); });
}

template <int N>
inline simd<float, N> sin(const simd<float, N>& x) {
  return detail::sine_of_any<0>(x, [](double a) { return std::sin(a); });
}

template <int N>
inline simd<float, N> cos(const simd<float, N>& x) {
  return detail::sine_of_any<1>(x, [](double a) { return std::cos(a); });
}

inline float exp2(float x) { return exp2(simd<float, 1>(x))[0]; }
inline float sqrt(float x) { return std::sqrt(x); }
inline float rsqrt(float x) { return static_cast<float>(1.0 / std::sqrt(double(x))); }

#else

inline float exp2(float x) { return sycl::native::exp2(x); }
inline float sqrt(float x) { return sycl::native::sqrt(x); }
inline float rsqrt(float x) { return sycl::native::rsqrt(x); }

template <int N>
inline simd<float, N> exp2(const simd<float, N>& x) {
  return detail::per_lane(x, [](float a) { return sycl::native::exp2(a); });
}

template <int N>
inline simd<float, N> exp(const simd<float, N>& x) {
  return detail::per_lane(x, [](float a) { return sycl::native::exp(a); });
}

template <int N>
inline simd<float, N> tanh(const simd<float, N>& x) {
  return detail::per_lane(x, [](float a) { return sycl::tanh(a); });
}

template <int N>
inline simd<float, N> pown(const simd<float, N>& x, int n) {
  return detail::per_lane(x, [n](float a) { return sycl::pown(a, n); });
}

template <int N>
inline simd<float, N> pow(const simd<float, N>& x, float y) {
  return detail::per_lane(x, [y](float a) { return sycl::pow(a, y); });
}

template <int N>
inline simd<float, N> sin(const simd<float, N>& x) {
  return detail::per_lane(x, [](float a) { return sycl::native::sin(a); });
}

template <int N>
inline simd<float, N> cos(const simd<float, N>& x) {
  return detail::per_lane(x, [](float a) { return sycl::native::cos(a); });
}

#endif

}  // namespace orrery::native
