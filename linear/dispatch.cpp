#include "linear/dispatch.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "batch/instances.h"
#include "formats/registry.h"
#include "includes/type_switch.h"
#include "linear/instances.h"

namespace orrery {
namespace {

using c10::ScalarType;

template <typename Plan, size_t Rows>
const Plan& plan_in(const Plan (&rows)[Rows], weight_format format) {
  if (const Plan* plan = find_format(rows, format)) return *plan;
  throw std::runtime_error("unsupported qtype: " + std::to_string(code_of(format)));
}

const format_plan& plan_of(weight_format format) { return plan_in(plans, format); }

bool takes_explicit_simd(const linear_request& r) {
  if (r.state_size % 256 != 0 || r.output_size % 32 != 0 || !is_half_or_float(r.type)) return false;
  if (find_format(vector_plans, r.format) == nullptr || r.n > most_vector_rows) return false;
  const uint32_t c = r.device_class;
  if (c != 0 && c != 1 && c != 2 && c != 4) return false;
  return r.n >= 2 || ((c == 1 || c == 2) && (r.format == weight_format::q8_0 || r.format == weight_format::fp4));
}

bool takes_matrix_engine(const linear_request& r, bool disabled) {
  if (disabled || r.n < 2 || r.output_size % 16 != 0) return false;
  if (std::ranges::find(engine_formats, r.format) == std::end(engine_formats)) return false;
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

// A decision with the fields that come from the instance.
linear_decision of_instance(kernel_family family, const kernel_instance& instance) {
  linear_decision d;
  d.family = family;
  d.kernel = instance.name;
  d.launch = instance.launch;
  d.shape = instance.shape;
  d.waits = instance.waits;
  return d;
}

uint32_t scale_offset_of(const linear_request& r, const format_plan& plan) {
  return plan.one_row.takes_scale ? scale_offset(r.format, r.output_size, r.state_size) : 0;
}

// Number of groups of R rows of the weight; the last group may have fewer rows.
uint64_t groups_of_rows(uint64_t output_size, int rows) { return (output_size + rows - 1) / rows; }

linear_decision one_row(const linear_request& r, const format_plan& plan) {
  linear_decision d = of_instance(kernel_family::one_row, plan.one_row.kernel.of(r.device_class));
  d.row_multiple = plan.one_row.run;
  d.scale_offset = scale_offset_of(r, plan);
  d.quantizes_input = plan.one_row.quantizes_input;
  const uint64_t second = plan.one_row.second_index ? d.shape.rows : 1, first = d.shape.work_group / second;
  d.global = {groups_of_rows(r.output_size, d.shape.rows) * first, second};
  if (d.quantizes_input) d.global[0] = static_cast<uint32_t>(d.global[0]);  // counted in 32 bits
  d.local = {first, second};
  return d;
}

linear_decision row_pairs(const linear_request& r, const format_plan& plan, const row_pairs_plan& row) {
  linear_decision d = of_instance(kernel_family::row_pairs, row.kernel.of(r.device_class));
  const uint64_t rows = d.shape.rows, group = d.shape.work_group;
  d.global = {(row.rounds_up ? groups_of_rows(r.output_size, rows) : r.output_size / rows) * group,
              static_cast<uint64_t>(r.n + 1) / 2};
  d.local = {group, 1};
  d.row_multiple = plan.one_row.run;
  d.scale_offset = scale_offset_of(r, plan);
  return d;
}

// The work-group size for a dense row whose work-items take `step` elements at a time: the largest that divides the
// row.
uint64_t dense_group(uint64_t state_size, uint64_t step) {
  const uint64_t smallest = 64 / step;
  for (uint64_t group = 256; group > smallest; group /= 2) {
    if (state_size % (group * step) == 0) return group;
  }
  return smallest;
}

uint64_t dense_group(dense_cut cut, const linear_request& r) {
  const bool wider = r.device_class == 0;
  switch (cut) {
    case dense_cut::row_of_nibbles:
      return dense_group(r.state_size, wider ? 4 : 2);
    case dense_cut::row_of_bytes:
      return dense_group(r.state_size, wider ? 2 : 1);
    case dense_cut::row_of_pairs:
      return dense_group(r.state_size, 2);
    default:
      return dense_group(r.state_size, 1);
  }
}

// The explicit-SIMD kernel of a dense weight, for the formats that have one.
linear_decision dense_by_blocks(const linear_request& r, const block_plan& plan) {
  linear_decision d = of_instance(kernel_family::whole, plan.kernel);
  d.record = plan.record;
  d.global = {r.output_size * r.state_size / 64 / plan.blocks, 1};
  d.local = {1, 1};
  return d;
}

// An ordinary kernel, for `rows` rows of the weight.
linear_decision dense_by_rows(const linear_request& r, const format_plan& plan, kernel_family family,
                              const class_instances& kernel, uint64_t rows) {
  linear_decision d = of_instance(family, kernel.of(r.device_class));
  d.row_multiple = 64;
  d.scale_offset = scale_offset_of(r, plan);
  if (plan.dense.cut == dense_cut::block) {
    const uint64_t group = d.shape.work_group;
    d.global = {rows * r.state_size / 256 * group, 1};
    d.local = {group, 1};
  } else {
    const uint64_t group = dense_group(plan.dense.cut, r);
    d.global = {rows * group, 1};
    d.local = {group, 1};
    d.shape.work_group = static_cast<int>(group);
  }
  return d;
}

linear_decision dense_by_rows(const linear_request& r, const format_plan& plan) {
  return dense_by_rows(r, plan, kernel_family::whole, plan.dense.kernel, r.output_size);
}

linear_decision whole(const linear_request& r, const format_plan& plan) {
  // fp6 has no other kernel; its launcher refuses types other than half and float.
  const bool by_blocks = plan.blocks.blocks != 0 && (is_half_or_float(r.type) || r.format == weight_format::fp6);
  return by_blocks ? dense_by_blocks(r, plan.blocks) : dense_by_rows(r, plan);
}

linear_decision tile(const linear_request& r, const format_plan& plan) {
  const uint64_t size = r.settings.tile_size;
  if (size == 0) throw std::runtime_error("orrery_ops: TILE_SIZE must not be 0");
  const uint64_t rows = std::min(size, r.output_size);
  linear_decision d = dense_by_rows(r, plan, kernel_family::tile, plan.tile.kernel, rows);
  d.scale_offset = scale_offset(r.format, r.output_size, r.state_size);
  d.tile_rows = rows;
  d.tiles = r.output_size / size + (r.output_size % size != 0);
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
  if (r.n == 1) return one_row(r, plan);
  for (const row_pairs_plan& row : plan.pairs) {
    if (row.limit != 0 && r.n <= row.limit && (row.class_0 || r.device_class != 0)) return row_pairs(r, plan, row);
  }
  if (takes_tiles(r, plan.tile.rule)) return tile(r, plan);
  return whole(r, plan);
}

void check_number(const char* text, const char* end, const std::string& function) {
  if (end == text) throw std::invalid_argument("invalid " + function + " argument");
  if (errno == ERANGE) throw std::out_of_range(function + " argument out of range");
}

// The error texts of std::stoll and std::stoull differ between standard libraries, so strtoll and strtoull are used.
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
  constexpr const char* names[] = {"explicit_simd", "matrix_engine", "one_row", "row_pairs", "whole", "tile"};
  return names[static_cast<int>(family)];
}

linear_decision decide(const linear_request& request) {
  plan_of(request.format);
  if (takes_explicit_simd(request)) return decide_explicit_simd(request);
  if (takes_matrix_engine(request, request.settings.matrix_engine_disabled)) return matrix_engine(request);
  return by_format(request);
}

linear_decision decide_explicit_simd(const linear_request& r) {
  const vector_plan& plan = plan_in(vector_plans, r.format);
  const vector_kernels& kernels = *plan.kernels;
  const auto n = static_cast<uint64_t>(r.n);
  linear_decision d;
  d.family = kernel_family::explicit_simd;
  d.record = "batch forward kernel";
  if (r.device_class == 4 && n <= vector_tails) {
    d.kernel = kernels.slim_name;
    d.tail = static_cast<int>(n);
    if (n > 0) {
      d.launch = kernels.slim[n - 1].launch;
      d.shape.work_group = kernels.slim[n - 1].group;
    }
  } else {
    d.kernel = kernels.general_name;
    d.tail = n % vector_tails == 0 ? vector_tails : static_cast<int>(n % vector_tails);
    d.launch = kernels.general[d.tail - 1];
    d.shape.work_group = r.device_class == 0 ? 16 : 32;
    d.waits = plan.general_waits;
  }
  d.shape.sub_group = 1;
  d.shape.rows = d.shape.work_group;
  d.global = {r.output_size, 1};
  d.local = {static_cast<uint64_t>(d.shape.work_group), 1};
  return d;
}

linear_decision decide_dense(const linear_request& request) { return dense_by_rows(request, plan_of(request.format)); }

linear_decision decide_matrix_engine(const linear_request& request) { return matrix_engine(request); }

linear_decision decide_band(const linear_decision& tile, uint64_t rows) {
  linear_decision band = tile;
  band.global[0] = rows * tile.local[0];
  return band;
}

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
  // "Pike(TM) A" comes before "Pike(TM)", which it contains.
  constexpr rule rules[] = {
      {"Rack Compute Card Apex", 0}, {"Pike(TM) A", 1}, {"Pike(TM)", 4}, {"Vela", 5}, {"Rack Compute Card Span", 2}};
  for (const rule& r : rules) {
    if (device_name.find(r.part) != std::string_view::npos) return r.device_class;
  }
  return 3;
}

}  // namespace orrery
