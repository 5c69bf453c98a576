// Which kernel serves a linear layer: a pure function from sizes, format, device class and settings to a decision.
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

// The template arguments of an instance: sub-group size, work-group size, rows of the weight per group. 0: not of this
// kernel.
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
  const void* x = nullptr;   // the input, or its q8_1 blocks where the decision says so; null for a dense weight
  void* y = nullptr;         // the result, or the dense weight
  uint64_t first_block = 0;  // of a band of dense rows
  c10::Device device{c10::DeviceType::XPU};
};

// Submits the kernel of a decision.
using linear_launcher = void(const linear_decision& way, const linear_operands& on);

// Those of all kernels with one instance per type: Half, Float, Double and BFloat16, and the explicit-SIMD ones of a
// dense weight, which have Half and Float and refuse any other.
template <template <typename, int...> typename Kernel, int... Shape>
linear_launcher launch_kernel;
template <template <typename, int> typename Kernel, int Blocks>
linear_launcher launch_block_kernel;

// Ranges have a trailing 1 where the launch has one dimension.
struct linear_decision {
  kernel_family family = kernel_family::one_row;
  const char* kernel = "";                // the functor's name
  linear_launcher* launch = nullptr;      // its instance's
  const char* record = "gridrun_kernel";  // the profiler record's name
  std::array<uint64_t, 2> global{0, 0};
  std::array<uint64_t, 2> local{0, 0};
  row_shape shape;
  int row_multiple = 0;          // state_size must be a multiple of it; 0: no test
  uint32_t scale_offset = 0;     // 0 where the kernel takes none
  bool quantizes_input = false;  // the activation goes through the q8_1 quantizer first
  bool waits = false;            // the host waits for the launch
  int tail = 0;                  // rows of the last step of the explicit-SIMD and matrix-engine kernels
  uint64_t tile_rows = 0;        // rows of the first band
  uint64_t tiles = 0;            // number of bands
};

// Throws std::runtime_error for a code that no weight may have.
linear_decision decide(const linear_request& request);

// The explicit-SIMD vector kernel, for any request of a format that has them; without a launcher where there is none
// for the number of rows. Throws std::runtime_error for other formats.
linear_decision decide_explicit_simd(const linear_request& request);

// The ordinary kernel that makes a dense weight, whatever the type; of no use for fp6, which has none.
linear_decision decide_dense(const linear_request& request);

// The matrix engine's launch for any request; `output_size` has to be a multiple of its columns, which the launch
// checks.
linear_decision decide_matrix_engine(const linear_request& request);

// A tile's decision for `rows` rows of the weight.
linear_decision decide_band(const linear_decision& tile, uint64_t rows);

// Reads from the environment exactly what the way of this request reads, in its order. A malformed number throws
// std::invalid_argument or std::out_of_range, also where the number would not matter.
linear_settings read_settings(const linear_request& request);

// Value of a variable, or null; the test module hands in a table instead of the process's environment.
using variable_reader = const char* (*)(const char* name);
linear_settings read_settings(const linear_request& request, variable_reader variable);

// 0 to 5, by the first of the known names that the device's name contains.
uint32_t device_class_of(std::string_view device_name);

}  // namespace orrery
