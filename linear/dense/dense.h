// Products and results that need the dense weight: forward_new with many rows, dequant and dequantize_rows.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// input times the transposed dense weight, which exists at once or by bands of rows.
at::Tensor linear_whole(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                        const linear_decision& way);
at::Tensor linear_by_tiles(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way);

// The dense weight, uninitialised.
at::Tensor empty_dense(const at::Tensor& weight, const linear_request& request);

// The dense weight by an ordinary kernel, in the request's type; `way` is of decide_dense.
at::Tensor dense_weight(const at::Tensor& weight, const linear_request& request, const linear_decision& way);

}  // namespace orrery
