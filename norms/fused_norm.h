// Layer and RMS normalization of rows: what a launch needs, and how its instance is chosen.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "includes/simd/register_type.h"

namespace orrery {

// Which instance of the kernel runs, with how many work-items a row.
struct norm_plan {
  bool one_moment;  // RMS; two moments are layer normalization
  int vec_size;     // elements of one load, 16 bytes at most
  bool wide_index;  // 64-bit offsets
  uint64_t work_group;
};

// Pointers are to contiguous elements of the kernel's type. A null weight, bias or residual is left out.
struct norm_operands {
  const void* input = nullptr;  // rows x row_length
  const void *add1 = nullptr, *add2 = nullptr;
  const void *weight = nullptr, *bias = nullptr;
  void* output = nullptr;
  uint64_t rows = 0;
  uint32_t row_length = 0;
  float eps = 0;
};

// Elements that a work-item keeps of its row.
template <typename T>
constexpr int norm_elements_per_item = sizeof(T) == 8   ? 4
                                       : sizeof(T) == 4 ? 8
                                                        : 16;

template <typename T>
constexpr int norm_widest_vector = 16 / sizeof(T);

// The longest row that a group's registers hold.
template <typename T>
constexpr uint64_t norm_longest_row(uint64_t max_work_group) {
  return norm_elements_per_item<T> * max_work_group;
}

// The widest vectors of which half would not do for the row, and no more work-items than it has vectors.
template <typename T>
constexpr norm_plan plan_norm(bool one_moment, uint64_t row_length, bool wide_index, uint64_t max_work_group) {
  norm_plan plan{one_moment, norm_widest_vector<T>, wide_index, max_work_group};
  while (plan.vec_size > 1 && row_length <= plan.vec_size / 2 * max_work_group) plan.vec_size /= 2;
  while ((plan.work_group >> 1) * plan.vec_size >= row_length) plan.work_group >>= 1;
  return plan;
}

// Defined for half, bfloat16, float and double, in a unit each. The vector is one that plan_norm can choose.
template <typename T>
void launch_fused_norm(c10::Device device, const norm_plan& plan, const norm_operands& on);

}  // namespace orrery
