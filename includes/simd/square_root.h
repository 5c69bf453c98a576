// Square roots, rounded to T; and the reciprocal one in double.
#pragma once

#include <cmath>

#include "vector.h"

namespace orrery {

namespace detail {

// Correctly rounded: the standard library's on the host, sycl::sqrt on devices.
template <typename S>
inline S square_root(S value) {
#ifdef SYCL_EXT_ORRERY_HOST
  return std::sqrt(value);
#else
  return sycl::sqrt(value);
#endif
}

}  // namespace detail

// 1 / sqrt(x), within one unit in the last place. In float kernels use native::rsqrt.
inline double rsqrt(double x) {
#ifdef SYCL_EXT_ORRERY_HOST
  return 1.0 / std::sqrt(x);
#else
  return sycl::rsqrt(x);
#endif
}

template <typename T, int N>
inline simd<T, N> sqrt(const simd<T, N>& a) {
  simd<T, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, T(detail::square_root(a.register_value(i))));
  return r;
}

}  // namespace orrery
