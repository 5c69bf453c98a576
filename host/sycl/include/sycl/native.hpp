// native functions. On the host they are the C library's.
#pragma once

#include <cmath>

namespace sycl::native {
inline float exp2(float x) { return std::exp2(x); }
inline float exp(float x) { return std::exp(x); }
inline float sin(float x) { return std::sin(x); }
inline float cos(float x) { return std::cos(x); }
inline float sqrt(float x) { return std::sqrt(x); }
inline float rsqrt(float x) { return 1.0f / std::sqrt(x); }
inline float recip(float x) { return 1.0f / x; }
}  // namespace sycl::native
