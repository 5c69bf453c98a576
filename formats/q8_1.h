// Quantized activations: 32 signed codes with a scale and the sum of the values that were quantized.
#pragma once

#include <cstdint>

#include "bytes.h"

namespace orrery::formats {

struct q8_1 {
  static constexpr int bytes = 36;
  static constexpr int elements = 32;
  static constexpr int d_at = 0, sum_at = 2, codes_at = 4;

  static float d(const uint8_t* block) { return half_at(block + d_at); }
  static float sum(const uint8_t* block) { return half_at(block + sum_at); }
  static const int8_t* codes(const uint8_t* block) { return reinterpret_cast<const int8_t*>(block + codes_at); }
};

}  // namespace orrery::formats
