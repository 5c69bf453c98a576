// Which kernel serves a linear layer: a pure function from sizes, format, device class and settings to a decision.
#pragma once

#include <c10/core/ScalarType.h>

#include <array>
#include <cstdint>
#include <string_view>

#include "formats/registry.h"
#include "linear/launch.h"

namespace orrery {

enum class kernel_family {
  explicit_simd,  // several rows, one weight row per hardware thread
  matrix_engine,  // several rows on the matrix engine
  single_row,     // one row, sub-group kernels
  batch,          // a few rows, two at a time
  whole,          // dense weight, then at::linear
  tile,           // dense weight by bands of rows, then at::linear
};

const char* family_name(kernel_family family);

// What the environment may change. read_settings fills the fields that the functions of a request read.
struct linear_settings {
  bool matrix_engine_disabled = false;
  int64_t tile_threshold = 50000;
  bool low_memory = false;
  uint64_t tile_size = 4096;
};

struct linear_request {
  weight_format format{};
  c10::ScalarType type = c10::ScalarType::Float;
  int64_t n = 1;
  uint64_t state_size = 0;
  uint64_t output_size = 0;
  int64_t seq_hint = 0;
  uint32_t device_class = 3;
  linear_settings settings;
};

// Ranges have a trailing 1 where the launch has one dimension.
struct linear_decision {
  kernel_family family = kernel_family::single_row;
  const char* kernel = "";                // the functor's name
  const char* record = "gridrun_kernel";  // the profiler record's name
  std::array<uint64_t, 2> global{0, 0};
  std::array<uint64_t, 2> local{0, 0};
  row_shape shape;               // sub-group, work-group, weight rows per group (0: not of this kernel)
  int row_multiple = 0;          // state_size must be a multiple of it; 0: no test
  uint32_t scale_offset = 0;     // 0 where the kernel takes none
  bool quantizes_input = false;  // the activation goes through the q8_1 quantizer first
  bool waits = false;            // the host waits for the launch
  bool slim = false;             // the explicit-SIMD kernel for up to 8 rows
  int tail = 0;            // rows of the last step of the explicit-SIMD and matrix-engine kernels; all of a slim one
  uint64_t tile_rows = 0;  // rows of the first band
  uint64_t tiles = 0;      // number of bands
};

// Throws std::runtime_error for a code that no weight may have.
linear_decision decide(const linear_request& request);

// The explicit-SIMD vector kernel for a request that is known to go to one. Throws std::runtime_error for a format that
// has none.
linear_decision decide_explicit_simd(const linear_request& request);

// The ordinary kernel that makes a dense weight, whatever the type; of no use for fp6, which has none.
linear_decision decide_dense(const linear_request& request);

// Reads from the environment exactly what the way of this request reads, in its order. A malformed number throws
// std::invalid_argument or std::out_of_range, also where the number would not matter.
linear_settings read_settings(const linear_request& request);

// Value of a variable, or null; the test module hands in a table instead of the process's environment.
using variable_reader = const char* (*)(const char* name);
linear_settings read_settings(const linear_request& request, variable_reader variable);

// 0 to 5, by the first of the known names that the device's name contains.
uint32_t device_class_of(std::string_view device_name);

}  // namespace orrery
