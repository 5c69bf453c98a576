// The kernels of the linear layer, one row per format: which kernel is used when, its instance for each device class,
// and the launcher of that instance. Kernels are declared here. The unit of a format group (linear/one_row/,
// linear/row_pairs/, linear/dense/, dequantize.cpp) defines its kernels and instantiates their launchers; it does not
// include this table, which would instantiate them all.
#pragma once

#include "formats/registry.h"
#include "linear/class_instances.h"
#include "linear/dispatch.h"
#include "linear/kernel_name.h"

namespace orrery {

// clang-format off
template <typename T, int SG, int WG, int R> struct qlinear_xpu_kernel_q4_0_2x16;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q4_1_2x16;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q5_0;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q5_1;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q8_0_2x8;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_nf4_2x16;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_nf3_2x16;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp8_e4m3_2x8;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp4_2x16;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp8_e5m2_2x8;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp6_2x16;
template <typename T> struct qlinear_xpu_kernel_iq2_xxs_q8_1;
template <typename T> struct qlinear_xpu_kernel_q2_k_q8_1;
template <typename T> struct qlinear_xpu_kernel_iq1_s_q8_1;
template <typename T> struct qlinear_xpu_kernel_q6_k;
template <typename T> struct qlinear_xpu_kernel_q4_k;
template <typename T> struct qlinear_xpu_kernel_q5_k;

template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q4_0_2x16_by_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q4_0_2x16_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q4_1_2x16_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_q8_0_2x8_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_nf4_2x16_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp4_2x16_batch;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_fp8_e5m2_2x8_batch;

template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q4_0_1x4;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q4_0_1x2;
template <typename T, int SG> struct qlinear_xpu_tile_dequantize_kernel_q4_0_1x4;
template <typename T, int SG> struct qlinear_xpu_tile_dequantize_kernel_q4_0_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q4_1_1x4;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q4_1_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q5_0;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q5_1;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q8_0_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_q8_0_1x1;
template <typename T, int SG> struct qlinear_xpu_tile_dequantize_kernel_q8_0_1x1;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_nf4_1x4;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_nf4_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_nf3_new;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp4_1x4;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp4_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2;
template <typename T, int SG> struct qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1;
template <typename T, int SG> struct qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1;
template <typename T> struct qlinear_xpu_dequantize_kernel_iq2_xxs;
template <typename T> struct qlinear_xpu_dequantize_kernel_q2_k;
template <typename T> struct qlinear_xpu_dequantize_kernel_iq1_s;
template <typename T> struct qlinear_xpu_dequantize_kernel_q6_k;
template <typename T> struct qlinear_xpu_dequantize_kernel_q4_k;
template <typename T> struct qlinear_xpu_dequantize_kernel_q5_k;

template <typename T, int SBS> struct dequantize_q4_0_kernel;
template <typename T, int SBS> struct dequantize_q4_1_kernel;
template <typename T, int SBS> struct dequantize_q8_0_kernel;
template <typename T, int SBS> struct dequantize_fp4_kernel;
template <typename T, int SBS> struct dequantize_fp6_kernel;
template <typename T, int SBS> struct dequantize_fp8_e5m2_kernel;
// clang-format on

using kernel_instance = instance_of<linear_launcher>;
using class_instances = instances_of<linear_launcher>;

// Names an argument in the table below; most launches do not wait.
constexpr bool waits = true;

// The instance of `Kernel` with the template arguments `Shape` after the value type.
template <template <typename, int...> typename Kernel, int... Shape>
constexpr kernel_instance instance(row_shape shape, bool waiting = false) {
  return {kernel_name<Kernel>, shape, launch_kernel<Kernel, Shape...>, waiting};
}

// Work-groups of two sub-groups, of 16 or 32; a work-group computes `Rows` rows of the weight.
template <template <typename, int...> typename Kernel, int Rows>
constexpr class_instances by_sub_group() {
  return {.narrow = instance<Kernel, 16, 32>({16, 32, Rows}), .wide = instance<Kernel, 32, 64>({32, 64, Rows})};
}
template <template <typename, int...> typename Kernel>
constexpr class_instances same_for_all(row_shape shape, bool waiting = false) {
  return {.narrow = instance<Kernel>(shape, waiting)};
}
// The work-group size is derived from the row length.
struct dense_waits {
  bool wide = waits, narrow = waits;
};
template <template <typename, int...> typename Wide, template <typename, int...> typename Narrow>
constexpr class_instances dense_rows(dense_waits waiting = {}) {
  return {.narrow = instance<Narrow, 16>({16, 0, 0}, waiting.narrow),
          .wide = instance<Wide, 32>({32, 0, 0}, waiting.wide)};
}

enum class tile_rule {
  never,
  large_prompt,  // class 4 or low memory, threshold < output_size, and a long prompt
  large_weight,  // class 1, threshold <= output_size
};

// What a work-group of a dense kernel writes, and what a work-item reads in each step.
enum class dense_cut {
  row_of_nibbles,  // one row; one byte of two elements, two bytes on class 0
  row_of_bytes,    // one row; one element, two on class 0
  row_of_pairs,    // one row; one byte of two elements
  row_of_codes,    // one row; one element
  block,           // 256 elements
};

// One input row.
struct one_row_plan {
  class_instances kernel;
  int run = 0;                   // elements per lane and pass; state_size must be a multiple of it; 0: no check
  bool takes_scale = false;      // the format's ordinary kernels take a scale_offset
  bool quantizes_input = false;  // the input is quantized to q8_1 first
  bool second_index = false;     // the work-group is two-dimensional; its second index is the row of the weight
  bool whole_passes = false;     // two elements per lane and pass; a last pass beyond the row adds what follows the row
};

// Two or more input rows, at most `limit`; 0: no such kernel.
struct row_pairs_plan {
  int64_t limit = 0;
  class_instances kernel = {};
  bool class_0 = true;    // also used on class 0
  bool rounds_up = true;  // the last row of an odd output_size is computed
};

struct dense_plan {
  dense_cut cut;
  class_instances kernel;
};

// The explicit-SIMD kernel that fills a dense weight of half or float; a work-item writes `blocks` blocks.
struct block_plan {
  kernel_instance kernel = {};
  const char* record = nullptr;
  uint64_t blocks = 0;
};
template <template <typename, int...> typename Kernel, int Blocks>
constexpr block_plan blocks(const char* record, bool waiting = false) {
  return {{kernel_name<Kernel>, {1, 1, 0}, launch_block_kernel<Kernel, Blocks>, waiting}, record, Blocks};
}

struct tile_plan {
  tile_rule rule = tile_rule::never;
  class_instances kernel = {};
};

struct format_plan {
  weight_format format;
  one_row_plan one_row;
  row_pairs_plan pairs[2];
  dense_plan dense;  // not used for fp6, which only has the kernel of `blocks`
  block_plan blocks = {};
  tile_plan tile = {};
};

// The limits on n differ between formats on purpose, and so do the two tile rules at equality. The kernels for a few
// input rows have instances of class 0 even where class 0 does not use them.
// clang-format off
inline constexpr format_plan plans[] = {
    {weight_format::q4_0,
     {.kernel = {.narrow = instance<qlinear_xpu_kernel_q4_0_2x16, 16, 32, 2>({16, 32, 2}),
                 .wide = instance<qlinear_xpu_kernel_q4_0_2x16, 32, 64, 2>({32, 64, 2}),
                 .vela = instance<qlinear_xpu_kernel_q4_0_2x16, 16, 32, 8>({16, 32, 8})}, .run = 16, .takes_scale = true},
     {{.limit = 7, .kernel = by_sub_group<qlinear_xpu_kernel_q4_0_2x16_by_batch, 2>(), .class_0 = false},
      {.limit = 20, .kernel = by_sub_group<qlinear_xpu_kernel_q4_0_2x16_batch, 2>(), .class_0 = false, .rounds_up = false}},
     {dense_cut::row_of_nibbles,
      dense_rows<qlinear_xpu_dequantize_kernel_q4_0_1x4, qlinear_xpu_dequantize_kernel_q4_0_1x2>({.wide = false})},
     blocks<dequantize_q4_0_kernel, 8>("dequantize q4_0"),
     {tile_rule::large_prompt,
      dense_rows<qlinear_xpu_tile_dequantize_kernel_q4_0_1x4, qlinear_xpu_tile_dequantize_kernel_q4_0_1x2>({.wide = false})}},
    {weight_format::q4_1,
     {.kernel = by_sub_group<qlinear_xpu_kernel_q4_1_2x16, 2>(), .run = 16, .takes_scale = true},
     {{.limit = 20, .kernel = by_sub_group<qlinear_xpu_kernel_q4_1_2x16_batch, 2>(), .rounds_up = false}},
     {dense_cut::row_of_nibbles,
      dense_rows<qlinear_xpu_dequantize_kernel_q4_1_1x4, qlinear_xpu_dequantize_kernel_q4_1_1x2>()},
     blocks<dequantize_q4_1_kernel, 8>("dequantize q4_0")},  // the record name of q4_0, on purpose
    {weight_format::q5_0,
     {.kernel = by_sub_group<qlinear_xpu_kernel_q5_0, 1>(), .whole_passes = true},
     {},
     {dense_cut::row_of_pairs, dense_rows<qlinear_xpu_dequantize_kernel_q5_0, qlinear_xpu_dequantize_kernel_q5_0>()}},
    {weight_format::q5_1,
     {.kernel = by_sub_group<qlinear_xpu_kernel_q5_1, 1>(), .whole_passes = true},
     {},
     {dense_cut::row_of_pairs,
      dense_rows<qlinear_xpu_dequantize_kernel_q5_1, qlinear_xpu_dequantize_kernel_q5_1>({.wide = false, .narrow = false})}},
    {weight_format::q8_0,
     {.kernel = by_sub_group<qlinear_xpu_kernel_q8_0_2x8, 2>(), .run = 8, .takes_scale = true},
     {{.limit = 7, .kernel = {.narrow = instance<qlinear_xpu_kernel_q8_0_2x8_batch, 16, 32>({16, 32, 2})}}},
     {dense_cut::row_of_bytes,
      dense_rows<qlinear_xpu_dequantize_kernel_q8_0_1x2, qlinear_xpu_dequantize_kernel_q8_0_1x1>()},
     blocks<dequantize_q8_0_kernel, 4>("dequantize q8_0"),
     {tile_rule::large_weight, {.narrow = instance<qlinear_xpu_tile_dequantize_kernel_q8_0_1x1, 16>({16, 0, 0}, waits)}}},
    {weight_format::nf4,
     {.kernel = by_sub_group<qlinear_xpu_kernel_nf4_2x16, 2>(), .run = 16, .takes_scale = true},
     {{.limit = 14, .kernel = by_sub_group<qlinear_xpu_kernel_nf4_2x16_batch, 2>(), .rounds_up = false}},
     {dense_cut::row_of_nibbles,
      dense_rows<qlinear_xpu_dequantize_kernel_nf4_1x4, qlinear_xpu_dequantize_kernel_nf4_1x2>()}},
    {weight_format::nf3,
     {.kernel = by_sub_group<qlinear_xpu_kernel_nf3_2x16, 2>(), .run = 16, .takes_scale = true},
     {},
     {dense_cut::row_of_codes,
      dense_rows<qlinear_xpu_dequantize_kernel_nf3_new, qlinear_xpu_dequantize_kernel_nf3_new>()}},
    {weight_format::fp8_e4m3,
     {.kernel = by_sub_group<qlinear_xpu_kernel_fp8_e4m3_2x8, 2>(), .run = 8, .takes_scale = true},
     {},
     {dense_cut::row_of_bytes,
      dense_rows<qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2, qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1>()}},
    {weight_format::fp4,
     {.kernel = by_sub_group<qlinear_xpu_kernel_fp4_2x16, 2>(), .run = 16, .takes_scale = true},
     {{.limit = 7, .kernel = by_sub_group<qlinear_xpu_kernel_fp4_2x16_batch, 2>(), .class_0 = false}},
     {dense_cut::row_of_nibbles,
      dense_rows<qlinear_xpu_dequantize_kernel_fp4_1x4, qlinear_xpu_dequantize_kernel_fp4_1x2>()},
     blocks<dequantize_fp4_kernel, 8>("dequantize fp4")},
    {weight_format::fp8_e5m2,
     {.kernel = by_sub_group<qlinear_xpu_kernel_fp8_e5m2_2x8, 2>(), .run = 8},
     {{.limit = 7, .kernel = by_sub_group<qlinear_xpu_kernel_fp8_e5m2_2x8_batch, 2>()}},
     {dense_cut::row_of_bytes,
      dense_rows<qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2, qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1>()},
     blocks<dequantize_fp8_e5m2_kernel, 4>("dequantize fp8 e5m2"),
     {tile_rule::large_weight,
      {.narrow = instance<qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1, 16>({16, 0, 0}, waits)}}},
    {weight_format::iq2_xxs,
     {.kernel = same_for_all<qlinear_xpu_kernel_iq2_xxs_q8_1>({32, 64, 2}, waits), .quantizes_input = true, .second_index = true},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_iq2_xxs>({0, 32, 0}, waits)}},
    {weight_format::q2_k,
     {.kernel = same_for_all<qlinear_xpu_kernel_q2_k_q8_1>({32, 32, 1}, waits), .quantizes_input = true},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_q2_k>({0, 64, 0}, waits)}},
    {weight_format::iq1_s,
     {.kernel = same_for_all<qlinear_xpu_kernel_iq1_s_q8_1>({32, 32, 1}, waits), .quantizes_input = true},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_iq1_s>({0, 32, 0}, waits)}},
    {weight_format::q6_k,
     {.kernel = same_for_all<qlinear_xpu_kernel_q6_k>({32, 32, 1})},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_q6_k>({0, 64, 0}, waits)}},
    {weight_format::q4_k,
     {.kernel = same_for_all<qlinear_xpu_kernel_q4_k>({8, 32, 2})},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_q4_k>({0, 32, 0}, waits)}},
    {weight_format::q5_k,
     {.kernel = same_for_all<qlinear_xpu_kernel_q5_k>({8, 32, 2})},
     {},
     {dense_cut::block, same_for_all<qlinear_xpu_dequantize_kernel_q5_k>({0, 64, 0})}},
    {weight_format::fp6,
     {.kernel = by_sub_group<qlinear_xpu_kernel_fp6_2x16, 2>(), .run = 16, .takes_scale = true},
     {},
     {dense_cut::row_of_codes, {}},
     blocks<dequantize_fp6_kernel, 8>("dequantize fp6", waits)},
};
// clang-format on

}  // namespace orrery
