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

}  // namespace orrery
