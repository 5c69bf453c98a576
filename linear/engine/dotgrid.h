// forward_new on the matrix engine.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// input times the transposed weight, as `way` says. A type other than half, float and bfloat16 ends the process with
// exit status 2; a size that is not a multiple of the kernel's fails an assertion.
at::Tensor dotgrid_forward(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way);

}  // namespace orrery
