// The planes of a split weight.
#pragma once

#include <cstdint>

#include "formats/registry.h"

namespace orrery::formats {

// Each starts at the weight's first block. A format without a scale plane does not read `scales`.
struct block_planes {
  const uint8_t* quants = nullptr;
  const uint8_t* scales = nullptr;
  const uint8_t* top_bits = nullptr;  // of fp6
};

// The planes of a whole weight; null if half values of the format do not need the plane. Positions are 64-bit: kernels
// that take a scale_offset are limited to 2^31 elements, explicit-SIMD kernels are not.
inline block_planes planes_of(weight_format format, const uint8_t* weight, uint64_t output_size, uint64_t state_size) {
  const uint64_t blocks = output_size * state_size / 64;
  block_planes planes{weight, weight + blocks * find_weight_format(format)->quant_bytes};
  if (format == weight_format::fp6) planes.top_bits = weight + blocks * 32;
  if (format == weight_format::fp8_e5m2) planes.scales = nullptr;
  return planes;
}

}  // namespace orrery::formats
