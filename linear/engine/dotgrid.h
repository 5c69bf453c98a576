// forward_new on the matrix engine.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// input times the transposed weight, as `way` says. Types but half, float and bfloat16 end the process with exit status
// 2; sizes that are no multiples of the kernel's end it by an assertion.
at::Tensor dotgrid_forward(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way);

}  // namespace orrery
