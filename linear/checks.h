// The check of a row's length that stands before the launch of a linear kernel, behind that of the input's type.
#pragma once

#include <c10/util/Exception.h>

#include <string>

#include "includes/type_switch.h"

namespace orrery {

// A multiple of 0 asks for nothing. The percent signs are literal; the numbers follow the text without a blank.
inline void check_row(const char* kernel, uint64_t state_size, uint64_t multiple) {
  if (multiple == 0 || state_size % multiple == 0) return;
  const std::string size = std::to_string(state_size);
  const std::string text = multiple == 64 ? "%d must be a multiple of 64" + size
                                          : "%d must be a multiple of %d" + size + std::to_string(multiple);
  c10::detail::torchCheckFail(kernel, "linear_xpu_kernel", __LINE__, text);
}

}  // namespace orrery
