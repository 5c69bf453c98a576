// Mathematical functions of the standard that the operators use. On the host they are the C library's.
#pragma once

#include <cmath>

namespace sycl {
using std::sqrt;
}
