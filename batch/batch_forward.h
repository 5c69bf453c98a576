// A linear layer by the explicit-SIMD vector kernels.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// Returns y of [n, output_size] by the kernel of the decision. Throws std::runtime_error for a type other than half and
// float, and if the decision has no launcher (the slim kernel with no input rows). Sizes that the kernels do not
// support fail an assertion.
at::Tensor run_explicit_simd(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                             const linear_decision& way);

}  // namespace orrery
