// Launchers of the ordinary kernels that write dense weights, a few formats per unit.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>

#include <cstdint>

namespace orrery {

// Neighbouring rows of a weight, one a group, to `dense`.
struct dense_launch {
  const char* kernel = "";
  uint64_t state_size = 0;
  uint64_t first_block = 0;  // of the first row
  uint64_t rows = 0;
  uint64_t group_items = 0;
  int sub_group = 0;
  bool tile = false;  // under the tile kernel's name
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  void* dense = nullptr;
  bool waits = false;
  c10::Device device{c10::DeviceType::XPU};
};

void launch_dense_q4_0(c10::ScalarType type, const dense_launch& args);
void launch_dense_q4_1(c10::ScalarType type, const dense_launch& args);
void launch_dense_q5_0(c10::ScalarType type, const dense_launch& args);
void launch_dense_q5_1(c10::ScalarType type, const dense_launch& args);
void launch_dense_q8_0(c10::ScalarType type, const dense_launch& args);
void launch_dense_nf4(c10::ScalarType type, const dense_launch& args);
void launch_dense_nf3(c10::ScalarType type, const dense_launch& args);
void launch_dense_fp8_e4m3(c10::ScalarType type, const dense_launch& args);
void launch_dense_fp4(c10::ScalarType type, const dense_launch& args);
void launch_dense_fp8_e5m2(c10::ScalarType type, const dense_launch& args);

}  // namespace orrery
