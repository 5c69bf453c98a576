// The operands of a product's kernel, from the tensors of the call.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/dispatch.h"

namespace orrery {

// `x` is the input of the request, or its quantized form.
inline linear_operands operands_of(const linear_request& request, const at::Tensor& x, const at::Tensor& weight,
                                   const at::Tensor& result) {
  return {.format = request.format,
          .type = request.type,
          .n = static_cast<uint64_t>(request.n),
          .state_size = request.state_size,
          .output_size = request.output_size,
          .weight = static_cast<const uint8_t*>(weight.data_ptr()),
          .x = x.data_ptr(),
          .y = result.data_ptr(),
          .device = weight.device()};
}

}  // namespace orrery
