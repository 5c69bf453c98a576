// The checks that stand before the launch of a linear kernel: the input's type, then the length of a row.
#pragma once

#include <c10/core/ScalarType.h>
#include <c10/util/Exception.h>

#include <string>

namespace orrery {

inline bool is_value_type(c10::ScalarType type) {
  return type == c10::kHalf || type == c10::kFloat || type == c10::kDouble || type == c10::kBFloat16;
}

inline void check_value_type(c10::ScalarType type) {
  TORCH_CHECK_NOT_IMPLEMENTED(is_value_type(type), "\"qlinear_forward_xpu\" not implemented for '", toString(type),
                              "'");
}

// A multiple of 0 asks for nothing. The percent signs are literal; the numbers follow the text without a blank.
inline void check_row(const char* kernel, uint64_t state_size, uint64_t multiple) {
  if (multiple == 0 || state_size % multiple == 0) return;
  const std::string size = std::to_string(state_size);
  const std::string text = multiple == 64 ? "%d must be a multiple of 64" + size
                                          : "%d must be a multiple of %d" + size + std::to_string(multiple);
  c10::detail::torchCheckFail(kernel, "linear_xpu_kernel", __LINE__, text);
}

}  // namespace orrery
