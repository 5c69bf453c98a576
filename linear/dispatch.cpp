#include "linear/dispatch.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "batch/plans.h"
#include "formats/registry.h"

namespace orrery {
namespace {

using c10::ScalarType;

// How the single-row kernel of a format is cut.
enum class row_cut {
  two_rows,       // 2 rows of the weight per group of SG, WG
  one_row,        // 1 row per group of SG, WG
  one_sub_group,  // 1 row per group of 32
  pair_of_rows,   // 2 rows per group of 32 in sub-groups of 8
  row_by_index,   // 2 rows per group of 32 x 2, a row for each second index
};

enum class tile_rule {
  never,
  large_prompt,  // class 4 or low memory, threshold below output_size, and a long prompt
  large_weight,  // class 1, threshold at most output_size
};

// How the dense weight is made.
enum class dense_cut {
  four_bit,     // one row per group, _1x4 for class 0 and _1x2 otherwise
  eight_bit,    // one row per group, _1x2 for class 0 and _1x1 otherwise
  one_byte,     // one row per group, a byte of two elements for an item
  one_element,  // one row per group
  block_of_32,  // one 256-element block per group of 32
  block_of_64,  // one 256-element block per group of 64
};

struct batch_row {
  int64_t limit = 0;  // largest n; 0: no entry
  const char* kernel = nullptr;
  bool class_0 = true;         // whether class 0 takes it
  bool rounds_up = true;       // an odd output_size keeps its last row
  bool narrow_always = false;  // the same sub-group 16 instance for every class
};

struct dense_row {
  dense_cut cut;
  const char* wide;    // class 0
  const char* narrow;  // the others
  bool wide_waits;
  bool narrow_waits;
  // The explicit-SIMD kernel that fills Half and Float instead, with its blocks per work-item; null: none.
  const char* simd = nullptr;
  const char* simd_record = nullptr;
  int simd_blocks = 0;
};

struct tile_row {
  tile_rule rule = tile_rule::never;
  const char* wide = nullptr;
  const char* narrow = nullptr;
  bool wide_waits = true;
};

struct format_plan {
  weight_format format;
  const char* single;
  row_cut cut;
  int run;           // elements that a lane takes in a pass, which state_size must be a multiple of; 0: no test
  bool takes_scale;  // the ordinary kernels get a scale_offset
  dense_row dense;
  batch_row batch[2] = {};
  tile_row tile = {};
};

// The limits on n differ between formats on purpose, and so do the two tile rules at equality.
// clang-format off
constexpr format_plan plans[] = {
    {weight_format::q4_0, "qlinear_xpu_kernel_q4_0_2x16", row_cut::two_rows, 16, true,
     {dense_cut::four_bit, "qlinear_xpu_dequantize_kernel_q4_0_1x4", "qlinear_xpu_dequantize_kernel_q4_0_1x2", false,
      true, "dequantize_q4_0_kernel", "dequantize q4_0", 8},
     {{7, "qlinear_xpu_kernel_q4_0_2x16_by_batch", false}, {20, "qlinear_xpu_kernel_q4_0_2x16_batch", false, false}},
     {tile_rule::large_prompt, "qlinear_xpu_tile_dequantize_kernel_q4_0_1x4",
      "qlinear_xpu_tile_dequantize_kernel_q4_0_1x2", false}},
    {weight_format::q4_1, "qlinear_xpu_kernel_q4_1_2x16", row_cut::two_rows, 16, true,
     {dense_cut::four_bit, "qlinear_xpu_dequantize_kernel_q4_1_1x4", "qlinear_xpu_dequantize_kernel_q4_1_1x2", true,
      true, "dequantize_q4_1_kernel", "dequantize q4_0", 8},
     {{20, "qlinear_xpu_kernel_q4_1_2x16_batch", true, false}}},
    {weight_format::q5_0, "qlinear_xpu_kernel_q5_0", row_cut::one_row, 0, false,
     {dense_cut::one_byte, "qlinear_xpu_dequantize_kernel_q5_0", "qlinear_xpu_dequantize_kernel_q5_0", true, true}},
    {weight_format::q5_1, "qlinear_xpu_kernel_q5_1", row_cut::one_row, 0, false,
     {dense_cut::one_byte, "qlinear_xpu_dequantize_kernel_q5_1", "qlinear_xpu_dequantize_kernel_q5_1", false, false}},
    {weight_format::q8_0, "qlinear_xpu_kernel_q8_0_2x8", row_cut::two_rows, 8, true,
     {dense_cut::eight_bit, "qlinear_xpu_dequantize_kernel_q8_0_1x2", "qlinear_xpu_dequantize_kernel_q8_0_1x1", true,
      true, "dequantize_q8_0_kernel", "dequantize q8_0", 4},
     {{7, "qlinear_xpu_kernel_q8_0_2x8_batch", true, true, true}},
     {tile_rule::large_weight, "qlinear_xpu_tile_dequantize_kernel_q8_0_1x1",
      "qlinear_xpu_tile_dequantize_kernel_q8_0_1x1"}},
    {weight_format::nf4, "qlinear_xpu_kernel_nf4_2x16", row_cut::two_rows, 16, true,
     {dense_cut::four_bit, "qlinear_xpu_dequantize_kernel_nf4_1x4", "qlinear_xpu_dequantize_kernel_nf4_1x2", true,
      true},
     {{14, "qlinear_xpu_kernel_nf4_2x16_batch", true, false}}},
    {weight_format::nf3, "qlinear_xpu_kernel_nf3_2x16", row_cut::two_rows, 16, true,
     {dense_cut::one_element, "qlinear_xpu_dequantize_kernel_nf3_new", "qlinear_xpu_dequantize_kernel_nf3_new", true,
      true}},
    {weight_format::fp8_e4m3, "qlinear_xpu_kernel_fp8_e4m3_2x8", row_cut::two_rows, 8, true,
     {dense_cut::eight_bit, "qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2", "qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1",
      true, true}},
    {weight_format::fp4, "qlinear_xpu_kernel_fp4_2x16", row_cut::two_rows, 16, true,
     {dense_cut::four_bit, "qlinear_xpu_dequantize_kernel_fp4_1x4", "qlinear_xpu_dequantize_kernel_fp4_1x2", true, true,
      "dequantize_fp4_kernel", "dequantize fp4", 8},
     {{7, "qlinear_xpu_kernel_fp4_2x16_batch", false}}},
    {weight_format::fp8_e5m2, "qlinear_xpu_kernel_fp8_e5m2_2x8", row_cut::two_rows, 8, false,
     {dense_cut::eight_bit, "qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2", "qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1",
      true, true, "dequantize_fp8_e5m2_kernel", "dequantize fp8 e5m2", 4},
     {{7, "qlinear_xpu_kernel_fp8_e5m2_2x8_batch"}},
     {tile_rule::large_weight, "qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1",
      "qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1"}},
    {weight_format::iq2_xxs, "qlinear_xpu_kernel_iq2_xxs_q8_1", row_cut::row_by_index, 0, false,
     {dense_cut::block_of_32, "qlinear_xpu_dequantize_kernel_iq2_xxs", "qlinear_xpu_dequantize_kernel_iq2_xxs", true,
      true}},
    {weight_format::q2_k, "qlinear_xpu_kernel_q2_k_q8_1", row_cut::one_sub_group, 0, false,
     {dense_cut::block_of_64, "qlinear_xpu_dequantize_kernel_q2_k", "qlinear_xpu_dequantize_kernel_q2_k", true, true}},
    {weight_format::iq1_s, "qlinear_xpu_kernel_iq1_s_q8_1", row_cut::one_sub_group, 0, false,
     {dense_cut::block_of_32, "qlinear_xpu_dequantize_kernel_iq1_s", "qlinear_xpu_dequantize_kernel_iq1_s", true,
      true}},
    {weight_format::q6_k, "qlinear_xpu_kernel_q6_k", row_cut::one_sub_group, 0, false,
     {dense_cut::block_of_64, "qlinear_xpu_dequantize_kernel_q6_k", "qlinear_xpu_dequantize_kernel_q6_k", true, true}},
    {weight_format::q4_k, "qlinear_xpu_kernel_q4_k", row_cut::pair_of_rows, 0, false,
     {dense_cut::block_of_32, "qlinear_xpu_dequantize_kernel_q4_k", "qlinear_xpu_dequantize_kernel_q4_k", true, true}},
    {weight_format::q5_k, "qlinear_xpu_kernel_q5_k", row_cut::pair_of_rows, 0, false,
     {dense_cut::block_of_64, "qlinear_xpu_dequantize_kernel_q5_k", "qlinear_xpu_dequantize_kernel_q5_k", false,
      false}},
    {weight_format::fp6, "qlinear_xpu_kernel_fp6_2x16", row_cut::two_rows, 16, true,
     {dense_cut::one_element, "dequantize_fp6_kernel", "dequantize_fp6_kernel", true, true, "dequantize_fp6_kernel",
      "dequantize fp6", 8}},
};
// clang-format on

template <typename Plan, size_t Rows>
const Plan* find_plan(const Plan (&rows)[Rows], weight_format format) {
  const Plan* row = std::find_if(rows, rows + Rows, [format](const Plan& plan) { return plan.format == format; });
  return row == rows + Rows ? nullptr : row;
}

const format_plan& plan_of(weight_format format) {
  if (const format_plan* plan = find_plan(plans, format)) return *plan;
  throw std::runtime_error("unsupported qtype: " + std::to_string(code_of(format)));
}

bool half_or_float(ScalarType type) { return type == ScalarType::Half || type == ScalarType::Float; }

bool takes_explicit_simd(const linear_request& r) {
  if (r.state_size % 256 != 0 || r.output_size % 32 != 0 || !half_or_float(r.type)) return false;
  if (find_vector_plan(r.format) == nullptr || r.n > most_rows) return false;
  const uint32_t c = r.device_class;
  if (c != 0 && c != 1 && c != 2 && c != 4) return false;
  return r.n >= 2 || ((c == 1 || c == 2) && (r.format == weight_format::q8_0 || r.format == weight_format::fp4));
}

bool takes_matrix_engine(const linear_request& r, bool disabled) {
  if (disabled || r.n < 2 || r.output_size % 16 != 0) return false;
  if (r.format != weight_format::q4_0 && r.format != weight_format::q8_0 && r.format != weight_format::fp8_e4m3 &&
      r.format != weight_format::fp8_e5m2)
    return false;
  if (r.device_class == 0) return r.n <= 16;
  if (r.device_class != 1 && r.device_class != 2) return false;
  return r.n >= (r.format == weight_format::fp8_e4m3 ? 2 : 7) && r.n <= 64;
}

linear_decision matrix_engine(const linear_request& r) {
  const int columns = r.device_class == 0 ? 16 : 8;
  linear_decision d;
  d.family = kernel_family::matrix_engine;
  d.kernel = "dotgrid_forward_kernel";
  d.global = {r.output_size / columns * 8, static_cast<uint64_t>(r.n + 7) / 8};
  d.local = {8, 1};
  d.shape = {1, 8, columns};
  d.scale_offset = scale_offset(r.format, r.output_size, r.state_size);
  d.tail = r.n % 8 == 0 ? 8 : static_cast<int>(r.n % 8);
  return d;
}

uint64_t rounded_down(uint64_t value, uint64_t multiple) { return value / multiple * multiple; }

// Ranges of a group of 2 or 8 rows of the weight: one group too many is cut off by the rounding.
uint64_t groups_of_rows(uint64_t output_size, const row_shape& shape) {
  if (shape.rows == 8) return rounded_down(output_size * 4 + 28, 32);
  return rounded_down(output_size * shape.sub_group + shape.sub_group, shape.work_group);
}

linear_decision single_row(const linear_request& r, const format_plan& plan, const row_shape& class_shape) {
  linear_decision d;
  d.family = kernel_family::single_row;
  d.kernel = plan.single;
  d.row_multiple = plan.run;
  d.scale_offset = plan.takes_scale ? scale_offset(r.format, r.output_size, r.state_size) : 0;
  d.quantizes_input =
      r.format == weight_format::iq2_xxs || r.format == weight_format::q2_k || r.format == weight_format::iq1_s;
  d.waits = d.quantizes_input;
  switch (plan.cut) {
    case row_cut::two_rows:
      d.shape = class_shape;
      d.shape.rows = r.format == weight_format::q4_0 && r.device_class == 5 ? 8 : 2;
      d.global = {groups_of_rows(r.output_size, d.shape), 1};
      break;
    case row_cut::one_row:
      d.shape = {class_shape.sub_group, class_shape.work_group, 1};
      d.global = {r.output_size * d.shape.work_group, 1};
      break;
    case row_cut::one_sub_group:
      d.shape = {32, 32, 1};
      d.global = {r.output_size * 32, 1};
      break;
    case row_cut::pair_of_rows:
      d.shape = {8, 32, 2};
      d.global = {(r.output_size + 1) / 2 * 32, 1};
      break;
    case row_cut::row_by_index:
      d.shape = {32, 64, 2};
      d.global = {rounded_down(r.output_size * 16 + 16, 32), 2};
      d.local = {32, 2};
      return d;
  }
  d.local = {static_cast<uint64_t>(d.shape.work_group), 1};
  return d;
}

linear_decision batch(const linear_request& r, const format_plan& plan, const batch_row& row, row_shape shape) {
  if (row.narrow_always) shape = {16, 32, 2};
  linear_decision d;
  d.family = kernel_family::batch;
  d.kernel = row.kernel;
  d.shape = shape;
  const uint64_t groups = row.rounds_up ? groups_of_rows(r.output_size, shape) : r.output_size / 2 * shape.work_group;
  d.global = {groups, static_cast<uint64_t>(r.n + 1) / 2};
  d.local = {static_cast<uint64_t>(shape.work_group), 1};
  d.row_multiple = plan.run;
  d.scale_offset = plan.takes_scale ? scale_offset(r.format, r.output_size, r.state_size) : 0;
  return d;
}

// Work-items of a dense row whose items take `step` elements at a time, in groups from `largest` down to `smallest`.
uint64_t dense_group(uint64_t state_size, uint64_t step, uint64_t smallest) {
  for (uint64_t group = 256; group > smallest; group /= 2) {
    if (state_size % (group * step) == 0) return group;
  }
  return smallest;
}

uint64_t dense_group(dense_cut cut, bool wide, uint64_t state_size) {
  const bool two_a_byte = cut == dense_cut::four_bit || cut == dense_cut::one_byte;
  const bool wider = wide && (cut == dense_cut::four_bit || cut == dense_cut::eight_bit);
  const uint64_t step = (two_a_byte ? 2 : 1) * (wider ? 2 : 1);
  return dense_group(state_size, step, 64 / step);
}

row_shape class_shape(uint32_t device_class) { return device_class == 0 ? row_shape{32, 64, 2} : row_shape{16, 32, 2}; }

// The explicit-SIMD kernel, for the formats that have one.
linear_decision dense_by_blocks(const linear_request& r, const dense_row& dense) {
  linear_decision d;
  d.family = kernel_family::whole;
  d.kernel = dense.simd;
  d.record = dense.simd_record;
  d.global = {r.output_size * r.state_size / 64 / dense.simd_blocks, 1};
  d.local = {1, 1};
  d.shape = {1, 1, 0};
  d.waits = r.format == weight_format::fp6;
  d.scale_offset = scale_offset(r.format, r.output_size, r.state_size);
  return d;
}

// The ordinary kernel.
linear_decision dense_by_rows(const linear_request& r, const format_plan& plan) {
  const dense_row& dense = plan.dense;
  const bool wide = r.device_class == 0;
  linear_decision d;
  d.family = kernel_family::whole;
  d.kernel = wide ? dense.wide : dense.narrow;
  d.waits = wide ? dense.wide_waits : dense.narrow_waits;
  d.row_multiple = 64;
  d.scale_offset = plan.takes_scale ? scale_offset(r.format, r.output_size, r.state_size) : 0;
  if (dense.cut == dense_cut::block_of_32 || dense.cut == dense_cut::block_of_64) {
    const uint64_t group = dense.cut == dense_cut::block_of_32 ? 32 : 64;
    d.global = {r.output_size * r.state_size / 256 * group, 1};
    d.local = {group, 1};
    d.shape.sub_group = 0;  // one instance for every class
  } else {
    const uint64_t group = dense_group(dense.cut, wide, r.state_size);
    d.global = {r.output_size * group, 1};
    d.local = {group, 1};
    d.shape.sub_group = class_shape(r.device_class).sub_group;
  }
  d.shape.work_group = static_cast<int>(d.local[0]);
  return d;
}

linear_decision whole(const linear_request& r, const format_plan& plan) {
  // fp6 has no other kernel: with any other type its host function refuses.
  const bool by_blocks = plan.dense.simd != nullptr && (half_or_float(r.type) || r.format == weight_format::fp6);
  return by_blocks ? dense_by_blocks(r, plan.dense) : dense_by_rows(r, plan);
}

linear_decision tile(const linear_request& r, const format_plan& plan) {
  const uint64_t size = r.settings.tile_size;
  if (size == 0) throw std::runtime_error("orrery_ops: TILE_SIZE must not be 0");
  const bool wide = r.device_class == 0;
  const uint64_t group = dense_group(plan.dense.cut, wide, r.state_size);
  linear_decision d;
  d.family = kernel_family::tile;
  d.kernel = wide ? plan.tile.wide : plan.tile.narrow;
  d.waits = wide ? plan.tile.wide_waits : true;
  d.row_multiple = 64;
  d.scale_offset = scale_offset(r.format, r.output_size, r.state_size);
  d.tile_rows = std::min(size, r.output_size);
  d.tiles = r.output_size / size + (r.output_size % size != 0);
  d.global = {d.tile_rows * group, 1};
  d.local = {group, 1};
  d.shape = {class_shape(r.device_class).sub_group, static_cast<int>(group), 0};
  return d;
}

bool takes_tiles(const linear_request& r, tile_rule rule) {
  const int64_t rows = static_cast<int64_t>(r.output_size);
  const linear_settings& s = r.settings;
  switch (rule) {
    case tile_rule::never:
      return false;
    case tile_rule::large_prompt:
      return (r.device_class == 4 || s.low_memory) && s.tile_threshold < rows && r.seq_hint >= 129;
    case tile_rule::large_weight:
      return r.device_class == 1 && s.tile_threshold <= rows;
  }
  return false;
}

linear_decision by_format(const linear_request& r) {
  const format_plan& plan = plan_of(r.format);
  const row_shape shape = class_shape(r.device_class);
  if (r.n == 1) return single_row(r, plan, shape);
  for (const batch_row& row : plan.batch) {
    if (row.kernel != nullptr && r.n <= row.limit && (row.class_0 || r.device_class != 0))
      return batch(r, plan, row, shape);
  }
  if (takes_tiles(r, plan.tile.rule)) return tile(r, plan);
  return whole(r, plan);
}

void check_number(const char* text, const char* end, const std::string& function) {
  if (end == text) throw std::invalid_argument("invalid " + function + " argument");
  if (errno == ERANGE) throw std::out_of_range(function + " argument out of range");
}

// The standard library's own conversions have other texts, which differ between libraries.
int64_t parse_signed(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  check_number(text, end, "stoll");
  return value;
}

uint64_t parse_unsigned(const char* text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  check_number(text, end, "stoull");
  return value;
}

const char* environment_variable(const char* name) { return std::getenv(name); }

}  // namespace

const char* family_name(kernel_family family) {
  constexpr const char* names[] = {"explicit_simd", "matrix_engine", "single_row", "batch", "whole", "tile"};
  return names[static_cast<int>(family)];
}

linear_decision decide(const linear_request& request) {
  plan_of(request.format);
  if (takes_explicit_simd(request)) return decide_explicit_simd(request);
  if (takes_matrix_engine(request, request.settings.matrix_engine_disabled)) return matrix_engine(request);
  return by_format(request);
}

linear_decision decide_explicit_simd(const linear_request& r) {
  const vector_plan* plan = find_vector_plan(r.format);
  if (plan == nullptr) throw std::runtime_error("unsupported qtype: " + std::to_string(code_of(r.format)));
  const bool slim = r.device_class == 4 && r.n <= slim_rows;
  const int group = slim ? slim_group(plan->slim_stages, r.n) : r.device_class == 0 ? 16 : 32;
  linear_decision d;
  d.family = kernel_family::explicit_simd;
  d.kernel = slim ? plan->slim : plan->general;
  d.record = "batch forward kernel";
  d.global = {r.output_size, 1};
  d.local = {static_cast<uint64_t>(group), 1};
  d.shape = {1, group, group};
  d.waits = !slim && plan->general_waits;
  d.slim = slim;
  d.tail = slim ? static_cast<int>(r.n) : r.n % 8 == 0 ? 8 : static_cast<int>(r.n % 8);
  return d;
}

linear_decision decide_dense(const linear_request& request) { return dense_by_rows(request, plan_of(request.format)); }

linear_settings read_settings(const linear_request& request) { return read_settings(request, environment_variable); }

linear_settings read_settings(const linear_request& request, variable_reader variable) {
  linear_settings settings;
  if (takes_explicit_simd(request)) return settings;
  const char* disabled = variable("ORRERY_LLM_DOTGRID_DISABLED");
  settings.matrix_engine_disabled = disabled != nullptr && std::strcmp(disabled, "1") == 0;
  if (takes_matrix_engine(request, settings.matrix_engine_disabled)) return settings;
  const tile_rule rule = plan_of(request.format).tile.rule;
  if (rule == tile_rule::never) return settings;
  if (const char* text = variable("TILE_THRESHOLD")) settings.tile_threshold = parse_signed(text);
  if (rule == tile_rule::large_prompt) {
    if (const char* text = variable("KELPIE_LLM_LOW_MEM")) settings.low_memory = parse_signed(text) == 1;
  }
  if (const char* text = variable("TILE_SIZE")) settings.tile_size = parse_unsigned(text);
  return settings;
}

uint32_t device_class_of(std::string_view device_name) {
  struct rule {
    std::string_view part;
    uint32_t device_class;
  };
  // "Pike(TM) A" stands before "Pike(TM)", which it contains.
  constexpr rule rules[] = {
      {"Rack Compute Card Apex", 0}, {"Pike(TM) A", 1}, {"Pike(TM)", 4}, {"Vela", 5}, {"Rack Compute Card Span", 2}};
  for (const rule& r : rules) {
    if (device_name.find(r.part) != std::string_view::npos) return r.device_class;
  }
  return 3;
}

}  // namespace orrery
