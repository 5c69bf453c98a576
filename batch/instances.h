// The explicit-SIMD vector kernels: which formats have them, and the instances of each.
#pragma once

#include "formats/registry.h"
#include "linear/dispatch.h"

namespace orrery {

constexpr int most_vector_rows = 64, vector_tails = 8;

struct slim_instance {
  linear_launcher* launch;
  int group;  // work-items
};

// The kernels of one format, defined in the unit of its format group. The general kernel, for up to 64 input rows, has
// an instance per tail; the slim one, for up to 8, an instance per number of rows.
struct vector_kernels {
  const char* general_name;
  const char* slim_name;
  linear_launcher* general[vector_tails];
  slim_instance slim[vector_tails];
};

extern const vector_kernels q4_0_vectors, q4_1_vectors;  // int4
extern const vector_kernels q8_0_vectors;                // int8
extern const vector_kernels fp4_vectors;
extern const vector_kernels fp6_vectors;
extern const vector_kernels fp8_e5m2_vectors;  // fp8

struct vector_plan {
  weight_format format;
  const vector_kernels* kernels;
  bool general_waits = false;  // the host waits for the launch
};

inline constexpr vector_plan vector_plans[] = {
    {weight_format::q4_0, &q4_0_vectors},     {weight_format::q4_1, &q4_1_vectors},
    {weight_format::q8_0, &q8_0_vectors},     {weight_format::fp4, &fp4_vectors},
    {weight_format::fp6, &fp6_vectors, true}, {weight_format::fp8_e5m2, &fp8_e5m2_vectors},
};

// Assertions. For every kernel: a row of the weight consists of whole spans, the weight of whole groups of rows.
void check_whole_groups(const linear_decision& way, const linear_operands& on);
// For the general kernel: the input rows are groups of eight and the tail.
void check_input_rows(const linear_decision& way, const linear_operands& on);
// For fp8_e5m2.
void check_no_scales(const void* scales);

}  // namespace orrery
