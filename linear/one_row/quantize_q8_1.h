// The activation quantizer: rows of an input as blocks of 32 signed codes.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>

#include <cstdint>

namespace orrery {

// Returns rows * state_size / 32 blocks of 36 bytes in a new tensor on `device`. Refuses a type other than Half, Float,
// Double and BFloat16, then a state_size that is not a multiple of 256, before anything is submitted.
at::Tensor quantize_q8_1(const at::Tensor& x, int64_t rows, uint64_t state_size, c10::Device device);

}  // namespace orrery
