// half: the 16-bit type, every operation rounded to it.
#pragma once

#include <c10/util/Half.h>

namespace sycl {
using half = c10::Half;
}
