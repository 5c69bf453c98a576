// fused_rms_norm and fused_layer_norm: rows normalized by a work-group each; rows that are too long are declined.
#include <ATen/core/Tensor.h>
#include <ATen/native/CanUse32BitIndexMath.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <cstdint>

#include "includes/simd/conversion.h"
#include "includes/type_switch.h"
#include "module/device_class.h"
#include "module/operations.h"
#include "module/trace_scope.h"
#include "norms/fused_norm.h"

namespace orrery {
namespace {

using at::Tensor;
using std::optional;

const uint64_t max_work_group_size = ask_at_load(get_max_work_group_size);

bool lies_at_multiple_of(const Tensor& x, uint64_t bytes) {
  return reinterpret_cast<uintptr_t>(x.const_data_ptr()) % bytes == 0;
}

// Whether rows of this length are served. Those that whole vectors do not cover, and unaligned tensors, are served by
// leaving the output as it is.
template <typename T>
bool launch_rows(const Tensor& input, const norm_operands& on, uint64_t row_length, bool one_moment,
                 const Tensor& output) {
  if (row_length > norm_longest_row<T>(max_work_group_size)) return false;
  const norm_plan plan =
      plan_norm<T>(one_moment, row_length, !at::native::canUse32BitIndexMath(input), max_work_group_size);
  const uint64_t bytes = plan.vec_size * sizeof(T);
  const bool whole =
      row_length % plan.vec_size == 0 && lies_at_multiple_of(input, bytes) && lies_at_multiple_of(output, bytes);
  if (whole) launch_fused_norm<T>(input.device(), plan, on);
  return true;
}

// Half and bfloat16 round eps to their type first.
template <typename T>
float eps_of(double eps) {
  const auto narrow = static_cast<float>(eps);
  if constexpr (is_narrow_float<T>) return static_cast<float>(to<T>(narrow));
  return narrow;
}

// All tensors are contiguous. False if the rows are too long.
bool LayerNormKernelImpl(const Tensor& input, const Tensor& weight, const Tensor& bias, int64_t rows,
                         int64_t row_length, double eps, bool one_moment, const Tensor& output) {
  return with_value_type(
      input.scalar_type(),
      [&](auto type) {
        using T = decltype(type);
        const norm_operands on{.input = input.const_data_ptr(),
                               .weight = weight.defined() ? weight.const_data_ptr<T>() : nullptr,
                               .bias = bias.defined() ? bias.const_data_ptr<T>() : nullptr,
                               .output = output.data_ptr(),
                               .rows = static_cast<uint64_t>(rows),
                               .row_length = static_cast<uint32_t>(row_length),
                               .eps = eps_of<T>(eps)};
        return launch_rows<T>(input, on, row_length, one_moment, output);
      },
      "LayerNormKernelImpl");
}

Tensor contiguous(const optional<Tensor>& x) { return x.has_value() && x->defined() ? x->contiguous() : Tensor(); }

Tensor normalized(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                  const optional<Tensor>& bias, double eps, bool one_moment) {
  const int64_t axis = std::max<int64_t>(input.dim() - static_cast<int64_t>(normalized_shape.size()), 0);
  const int64_t rows = c10::multiply_integers(input.sizes().slice(0, axis));
  const int64_t row_length = c10::multiply_integers(input.sizes().slice(axis));
  Tensor output = at::empty(input.sizes(), input.options());
  if (input.numel() == 0) return output;
  if (!LayerNormKernelImpl(input.contiguous(), contiguous(weight), contiguous(bias), rows, row_length, eps, one_moment,
                           output)) {
    return at::empty({0});
  }
  return output;
}

}  // namespace

Tensor fused_layer_norm_xpu(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                            const optional<Tensor>& bias, double eps) {
  return normalized(input, normalized_shape, weight, bias, eps, false);
}

Tensor fused_rms_norm_xpu(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                          const optional<Tensor>& bias, double eps) {
  return normalized(input, normalized_shape, weight, bias, eps, true);
}

Tensor add_layer_norm(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                      const optional<Tensor>& bias, double eps) {
  const trace_scope scope("add_layer_norm", input);
  return fused_layer_norm_xpu(input, normalized_shape, weight, bias, eps);
}

Tensor add_rms_norm(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                    const optional<Tensor>& bias, double eps) {
  const trace_scope scope("add_rms_norm", input);
  return fused_rms_norm_xpu(input, normalized_shape, weight, bias, eps);
}

}  // namespace orrery
