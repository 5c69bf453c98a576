// Selects the kernel of a linear layer: a pure function from sizes, format, device class and settings to a decision.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>

#include <array>
#include <cstdint>
#include <string_view>

#include "formats/registry.h"

namespace orrery {

enum class kernel_family {
  explicit_simd,  // several rows, one weight row per hardware thread
  matrix_engine,  // several rows on the matrix engine
  one_row,        // one row, sub-group kernels
  row_pairs,      // a few rows, two at a time
  whole,          // dense weight, then at::linear
  tile,           // dense weight in bands of rows, then at::linear
};

const char* family_name(kernel_family family);

// What the environment variables set. read_settings fills only the fields that the decision for a request reads.
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

// The template arguments of an instance: sub-group size, work-group size, rows of the weight per group. 0: the kernel
// has no such argument.
struct row_shape {
  int sub_group = 0;
  int work_group = 0;
  int rows = 0;

  friend constexpr bool operator==(const row_shape&, const row_shape&) = default;
};

struct linear_decision;

// What a kernel of the linear layer works on; x and y hold elements of `type`.
struct linear_operands {
  weight_format format{};
  c10::ScalarType type = c10::ScalarType::Float;
  uint64_t n = 1;            // input rows
  uint64_t state_size = 0;   // elements of a row of the weight
  uint64_t output_size = 0;  // rows of the weight
  const uint8_t* weight = nullptr;
  const void* x = nullptr;   // the input, or its q8_1 blocks if the decision says so; null for a dense weight
  void* y = nullptr;         // the result, or the dense weight
  uint64_t first_block = 0;  // of a band of rows
  c10::Device device{c10::DeviceType::XPU};
};

// Submits the kernel of a decision.
using linear_launcher = void(const linear_decision& way, const linear_operands& on);

// The launchers of all kernels with one instance per type. launch_kernel has Half, Float, Double and BFloat16;
// launch_block_kernel, for the explicit-SIMD kernels of a dense weight, has Half and Float and refuses any other.
template <template <typename, int...> typename Kernel, int... Shape>
linear_launcher launch_kernel;
template <template <typename, int> typename Kernel, int Blocks>
linear_launcher launch_block_kernel;

// Ranges have a trailing 1 where the launch has one dimension.
struct linear_decision {
  kernel_family family = kernel_family::one_row;
  const char* kernel = "";                // the name of the kernel functor
  linear_launcher* launch = nullptr;      // of its instance
  const char* record = "gridrun_kernel";  // the profiler record's name
  std::array<uint64_t, 2> global{0, 0};
  std::array<uint64_t, 2> local{0, 0};
  row_shape shape;
  int row_multiple = 0;          // state_size must be a multiple of it; 0: no check
  uint32_t scale_offset = 0;     // 0 if the kernel takes none
  bool quantizes_input = false;  // the input is quantized to q8_1 first
  bool waits = false;            // the host waits for the launch
  int tail = 0;                  // input rows of the last step of explicit-SIMD and matrix-engine kernels
  uint64_t tile_rows = 0;        // rows of the first band
  uint64_t tiles = 0;            // number of bands
};

// Throws std::runtime_error for a code that is no weight format.
linear_decision decide(const linear_request& request);

// The explicit-SIMD vector kernel for any request. There is no launcher if none exists for the number of rows. Throws
// std::runtime_error for formats without such kernels.
linear_decision decide_explicit_simd(const linear_request& request);

// The ordinary kernel that makes a dense weight, for any type. Not for fp6, which has no such kernel.
linear_decision decide_dense(const linear_request& request);

// The launch on the matrix engine for any request. `output_size` must be a multiple of its columns; the launch checks
// that.
linear_decision decide_matrix_engine(const linear_request& request);

// The decision `tile` for a band of `rows` rows of the weight.
linear_decision decide_band(const linear_decision& tile, uint64_t rows);

// Reads exactly the variables that the dispatch of this request needs, in its order. A malformed number throws
// std::invalid_argument or std::out_of_range, even if the decision would not depend on it.
linear_settings read_settings(const linear_request& request);

// Returns the value of a variable, or null. Tests pass a table instead of the process's environment.
using variable_reader = const char* (*)(const char* name);
linear_settings read_settings(const linear_request& request, variable_reader variable);

// 0 to 5, from the first known name that the device's name contains.
uint32_t device_class_of(std::string_view device_name);

}  // namespace orrery
