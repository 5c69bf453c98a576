// From a run-time type or size to a template argument, with the one text of each refusal.
#pragma once

#include <c10/core/ScalarType.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Exception.h>
#include <c10/util/Half.h>

#include <cstdint>
#include <stdexcept>
#include <type_traits>

namespace orrery {

inline bool is_half_or_float(c10::ScalarType type) { return type == c10::kHalf || type == c10::kFloat; }

// The types of the linear layer's ordinary kernels; `function` is who refuses another.
inline void check_value_type(c10::ScalarType type, const char* function = "qlinear_forward_xpu") {
  const bool known = is_half_or_float(type) || type == c10::kDouble || type == c10::kBFloat16;
  TORCH_CHECK_NOT_IMPLEMENTED(known, '"', function, "\" not implemented for '", toString(type), "'");
}

// Calls `f` with a value of the type.
template <typename F>
auto with_value_type(c10::ScalarType type, F f) {
  check_value_type(type);
  switch (type) {
    case c10::kHalf:
      return f(c10::Half());
    case c10::kFloat:
      return f(float());
    case c10::kDouble:
      return f(double());
    default:
      return f(c10::BFloat16());
  }
}

inline void check_half_or_float(c10::ScalarType type) {
  if (!is_half_or_float(type)) throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
}

template <typename F>
auto with_half_or_float(c10::ScalarType type, F f) {
  check_half_or_float(type);
  return type == c10::kHalf ? f(c10::Half()) : f(float());
}

// Calls `f` with the size as a constant.
template <typename F>
auto with_head_dim(int64_t head_dim, F f) {
  switch (head_dim) {
    case 64:
      return f(std::integral_constant<int, 64>());
    case 96:
      return f(std::integral_constant<int, 96>());
    case 128:
      return f(std::integral_constant<int, 128>());
    default:
      throw std::runtime_error("unsupported head_dim, only 128, 96 and 64 are supported");
  }
}

}  // namespace orrery
