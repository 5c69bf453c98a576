// The explicit-SIMD vector kernels by format: their names, and what their instances differ in.
#pragma once

#include <cstdint>

#include "formats/registry.h"

namespace orrery {

struct vector_plan {
  weight_format format;
  const char* general;  // any number of input rows
  const char* slim;     // up to 8 of them
  bool slim_stages;     // the slim kernel brings its input into local memory first
  bool general_waits;
};

inline constexpr vector_plan vector_plans[] = {
    {weight_format::q4_0, "vector_forward_kernel_q4_0", "vector_forward_kernel_q4_0_slim", false, false},
    {weight_format::q4_1, "vector_forward_kernel_q4_1", "vector_forward_kernel_q4_1_slim", false, false},
    {weight_format::q8_0, "vector_forward_kernel_q8_0", "vector_forward_kernel_q8_0_slim", true, false},
    {weight_format::fp4, "vector_forward_kernel_fp4", "vector_forward_kernel_fp4_slim", true, false},
    {weight_format::fp8_e5m2, "vector_forward_kernel_fp8_e5m2", "vector_forward_kernel_fp8_e5m2_slim", true, false},
    {weight_format::fp6, "vector_forward_kernel_fp6", "vector_forward_kernel_fp6_slim", true, true},
};

// Null for a format without such kernels.
constexpr const vector_plan* find_vector_plan(weight_format format) {
  for (const vector_plan& plan : vector_plans) {
    if (plan.format == format) return &plan;
  }
  return nullptr;
}

// Rows that the kernels can take, in groups of `row_group` and a tail of 1 to 8.
constexpr int64_t most_rows = 64, slim_rows = 8;

// Work-items of a slim kernel's group. One that stages needs four for each input row.
constexpr int slim_group(bool stages, int64_t n) {
  if (!stages) return n <= 4 ? 8 : 16;
  return n <= 2 ? 8 : n <= 4 ? 16 : 32;
}

}  // namespace orrery
