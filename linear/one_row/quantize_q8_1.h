// The activation quantizer: rows of an input as blocks of 32 signed codes.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>

#include <cstdint>

namespace orrery {

// Returns rows * state_size / 32 blocks of 36 bytes in a new tensor on `device`. `type` is Half, Float, Double or
// BFloat16; rows * state_size must be a multiple of 256.
at::Tensor quantize_q8_1(const void* x, c10::ScalarType type, int64_t rows, int64_t state_size, c10::Device device);

}  // namespace orrery
