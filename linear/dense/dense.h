// What needs the dense weight: forward_new with many input rows, and dequant.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// input times the transposed dense weight, which is made as a whole or in bands of rows.
at::Tensor linear_whole(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                        const linear_decision& way);
at::Tensor linear_by_tiles(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way);

// An uninitialised dense weight.
at::Tensor empty_dense(const at::Tensor& weight, const linear_request& request);

// The dense weight in the request's type, by the ordinary kernel; `way` comes from decide_dense.
at::Tensor dense_weight(const at::Tensor& weight, const linear_request& request, const linear_decision& way);

// The dense matrix of all rows of a weight, for every format and value type.
at::Tensor dequantize_xpu(const at::Tensor& weight, int32_t qtype, int64_t state_size, at::ScalarType type);

}  // namespace orrery
