// Dequantizes chosen rows of a weight with 256 elements per block to float.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "formats/registry.h"

namespace orrery {

// Row index[i] of the weight, of nb_row blocks, becomes row i of `dense`, of 256 * nb_row floats.
struct indexed_rows {
  const int64_t* index = nullptr;
  uint64_t indexes = 0;
  uint64_t nb_row = 0;
  const uint8_t* weight = nullptr;
  float* dense = nullptr;
  c10::Device device{c10::DeviceType::XPU};
};

// Whether single rows of a format can be dequantized.
bool has_rows_dequantize(weight_format format);

void launch_dequantize_rows(weight_format format, const indexed_rows& rows);

}  // namespace orrery
