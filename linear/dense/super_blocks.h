// Dense values of the formats of 256 elements: a work-group per block, whatever the device's class.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>

#include <cstdint>

#include "formats/registry.h"

namespace orrery {

// Of a format with 256 elements per block. Fills `dense` with output_size * state_size values of `type` (Half, Float,
// Double or BFloat16). Only whole blocks of 256 elements are written: what is left of the product stays as it is.
void launch_dequantize_blocks(weight_format format, c10::ScalarType type, uint64_t output_size, uint64_t state_size,
                              const void* weight, void* dense, c10::Device device, bool wait);

// Whether single rows of a format can be dequantized.
bool has_rows_dequantize(weight_format format);

// Row index[i] of the weight, nb_row blocks of it, goes to 256 * nb_row floats at position i of `dense`.
void launch_dequantize_rows(weight_format format, const int64_t* index, uint64_t indexes, uint64_t nb_row,
                            const void* weight, float* dense, c10::Device device);

}  // namespace orrery
