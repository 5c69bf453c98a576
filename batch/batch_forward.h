// The explicit-SIMD way of a linear layer.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// y of [n, output_size] by the kernel of the decision. Throws std::runtime_error for a type other than half and float
// and where the kernel for up to 8 rows gets none; sizes that the kernels cannot take end the process.
at::Tensor run_explicit_simd(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                             const linear_decision& way);

}  // namespace orrery
