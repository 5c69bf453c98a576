// Square roots, rounded to T.
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

template <typename T, int N>
inline simd<T, N> sqrt(const simd<T, N>& a) {
  // The root of a half as a float is rounded twice, which gives the nearest half too.
  using wide = std::conditional_t<is_narrow_float<T>, float, T>;
  simd<T, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; ++i) {
    r.set(i, T(detail::square_root(static_cast<wide>(a.register_value(i)))));
  }
  return r;
}

}  // namespace orrery
