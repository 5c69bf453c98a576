// Turns a run-time type or size into a template argument; the texts of the errors are here alone.
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

// `function` is the name in the message.
[[noreturn]] inline void refuse_value_type(c10::ScalarType type, const char* function) {
  C10_THROW_ERROR(NotImplementedError, c10::str('"', function, "\" not implemented for '", type, "'"));
}

// Calls `f` with a value of the type, which must be one that the linear layer's ordinary kernels support.
template <typename F>
auto with_value_type(c10::ScalarType type, F f, const char* function = "qlinear_forward_xpu") {
  switch (type) {
    case c10::kHalf:
      return f(c10::Half());
    case c10::kFloat:
      return f(float());
    case c10::kDouble:
      return f(double());
    case c10::kBFloat16:
      return f(c10::BFloat16());
    default:
      refuse_value_type(type, function);
  }
}

template <typename F>
auto with_half_or_float(c10::ScalarType type, F f) {
  switch (type) {
    case c10::kHalf:
      return f(c10::Half());
    case c10::kFloat:
      return f(float());
    default:
      throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
}

// For callers that have other steps between the check of the type and the launch.
inline void check_value_type(c10::ScalarType type, const char* function = "qlinear_forward_xpu") {
  with_value_type(
      type, [](auto) {}, function);
}
inline void check_half_or_float(c10::ScalarType type) {
  with_half_or_float(type, [](auto) {});
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

// Calls f(head size as a constant, value of the type). The size is judged first.
template <typename F>
auto with_head_dim_and_type(int64_t head_dim, c10::ScalarType type, F f) {
  return with_head_dim(head_dim, [&](auto hd) { return with_half_or_float(type, [&](auto t) { return f(hd, t); }); });
}

}  // namespace orrery
