// Mathematical functions of the standard that the operators use. On the host they are the C library's.
#pragma once

#include <cmath>

namespace sycl {
using std::pow;
using std::sqrt;
using std::tanh;
inline double rsqrt(double x) { return 1.0 / std::sqrt(x); }
inline float pown(float x, int n) { return static_cast<float>(std::pow(static_cast<double>(x), n)); }
}  // namespace sycl
