// What a launch of an explicit-SIMD vector kernel takes, and the instances of each format.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "formats/planes.h"
#include "linear/dispatch.h"

namespace orrery {

// Rows of x are state_size elements apart, rows of y output_size; both are of the instance's type.
struct vector_operands {
  formats::block_planes planes;
  const void* x = nullptr;
  void* y = nullptr;
  uint64_t input_size = 0;
  uint64_t state_size = 0;
  uint64_t output_size = 0;
  c10::Device device{c10::DeviceType::XPU};
};

using vector_launcher = void (*)(const linear_decision& way, const vector_operands& operands);

// By type, half first, then by tail or number of input rows from 1 on.
struct vector_instances {
  vector_launcher general[2][8];
  vector_launcher slim[2][8];
};

extern const vector_instances q4_0_instances, q4_1_instances;  // int4
extern const vector_instances q8_0_instances;                  // int8
extern const vector_instances fp4_instances;
extern const vector_instances fp6_instances;
extern const vector_instances fp8_e5m2_instances;  // fp8

}  // namespace orrery
