// Launchers of the linear kernels: what the dispatch knows about a launch, without the kernels' headers.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>
#include <string_view>

#include "formats/registry.h"

namespace orrery {

// The template arguments of a single-row instance: sub-group size, work-group size, rows of the weight per group.
struct row_shape {
  int sub_group = 0;
  int work_group = 0;
  int rows = 0;

  friend constexpr bool operator==(const row_shape&, const row_shape&) = default;
};

// Input rows against the whole weight. The row condition was tested before; x and y hold elements of the input's type.
struct row_launch {
  uint64_t state_size = 0;
  uint64_t output_size = 0;
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;  // 0 where the format's kernel takes none
  const void* x = nullptr;
  void* y = nullptr;
  c10::Device device{c10::DeviceType::XPU};
  uint64_t n = 1;
  bool waits = false;  // the host waits for the product's launch
};

// Calls `f` with a value of the input's type; the dispatch let no other type through.
template <typename F>
void with_value_type(c10::ScalarType type, F f) {
  switch (type) {
    case c10::ScalarType::Half:
      return f(c10::Half());
    case c10::ScalarType::Float:
      return f(float());
    case c10::ScalarType::Double:
      return f(double());
    default:
      return f(c10::BFloat16());
  }
}

// Submits the single-row kernel of a format; `type` is Half, Float, Double or BFloat16.
void launch_single_row(weight_format format, const row_shape& shape, c10::ScalarType type, const row_launch& args);

// Submits the kernel for a few input rows that the dispatch named.
void launch_batch(std::string_view kernel, const row_shape& shape, c10::ScalarType type, const row_launch& args);

}  // namespace orrery
