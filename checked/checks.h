// Checks that several operators make. A wrong type is a TypeError, all else a ValueError.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/GradMode.h>
#include <c10/core/ScalarType.h>
#include <c10/util/Exception.h>

#include <string>

namespace orrery::checked {

// A type's name in Python.
inline std::string name_of(at::ScalarType type) { return std::string(c10::getDtypeNames(type).first); }
inline std::string type_of(const at::Tensor& x) { return name_of(x.scalar_type()); }

// The value types: float32, float16, bfloat16 and float64.
inline bool is_value_type(at::ScalarType type) {
  return type == at::kFloat || type == at::kHalf || type == at::kBFloat16 || type == at::kDouble;
}

inline void check_values(const at::Tensor& x, const char* name) {
  TORCH_CHECK_TYPE(is_value_type(x.scalar_type()), name, " must be float32, float16, bfloat16 or float64, not ",
                   type_of(x));
}

inline void check_bytes(const at::Tensor& x, const char* name) {
  TORCH_CHECK_TYPE(x.scalar_type() == at::kByte, name, " must be uint8, not ", type_of(x));
}

inline void check_same_type(const at::Tensor& x, const char* name, const at::Tensor& other, const char* other_name) {
  TORCH_CHECK_TYPE(x.scalar_type() == other.scalar_type(), name, " must be ", type_of(other), " as ", other_name,
                   " is, not ", type_of(x));
}

// Meta tensors pass: fake tensors are such while a function of `meta` runs.
inline void check_on_xpu(const at::Tensor& x, const char* name) {
  TORCH_CHECK_VALUE(x.is_xpu() || x.is_meta(), name, " must be on an xpu device, not on ", x.device());
}

inline void check_same_device(const at::Tensor& x, const char* name, const at::Tensor& other, const char* other_name) {
  TORCH_CHECK_VALUE(x.device() == other.device(), name, " must be on ", other.device(), " as ", other_name,
                    " is, not on ", x.device());
}

inline void check_dimensions(const at::Tensor& x, const char* name, int64_t dimensions, const char* meaning) {
  TORCH_CHECK_VALUE(x.dim() == dimensions, name, " must be ", meaning, ", not ", x.sym_sizes());
}

// Whether a call needs a gradient of x, backward or forward.
inline bool needs_gradient(const at::Tensor& x) {
  return at::GradMode::is_enabled() && (x.requires_grad() || x._fw_grad(/*level=*/0).defined());
}

}  // namespace orrery::checked
