#include "linear/launchers.h"

namespace orrery {

namespace {

struct row {
  int32_t qtype;
  void (*launch)(const row_shape&, c10::ScalarType, const row_launch&);
};

// clang-format off
constexpr row rows[] = {
    {2,  launch_row_q4_0},
    {3,  launch_row_q4_1},
    {6,  launch_row_q5_0},
    {7,  launch_row_q5_1},
    {8,  launch_row_q8_0},
    {10, launch_row_nf4},
    {11, launch_row_nf3},
    {15, launch_row_fp8_e4m3},
    {16, launch_row_fp4},
    {19, launch_row_fp8_e5m2},
    {21, launch_row_iq2_xxs},
    {23, launch_row_q2_k},
    {24, launch_row_iq1_s},
    {26, launch_row_q6_k},
    {27, launch_row_q4_k},
    {28, launch_row_q5_k},
    {29, launch_row_fp6},
};
// clang-format on

struct batch_row {
  std::string_view kernel;
  void (*launch)(const row_shape&, c10::ScalarType, const row_launch&);
};

constexpr batch_row batch_rows[] = {
    {"qlinear_xpu_kernel_q4_0_2x16_batch", launch_batch_q4_0},
    {"qlinear_xpu_kernel_q4_0_2x16_by_batch", launch_by_batch_q4_0},
    {"qlinear_xpu_kernel_q4_1_2x16_batch", launch_batch_q4_1},
    {"qlinear_xpu_kernel_q8_0_2x8_batch", launch_batch_q8_0},
    {"qlinear_xpu_kernel_nf4_2x16_batch", launch_batch_nf4},
    {"qlinear_xpu_kernel_fp4_2x16_batch", launch_batch_fp4},
    {"qlinear_xpu_kernel_fp8_e5m2_2x8_batch", launch_batch_fp8_e5m2},
};

}  // namespace

void launch_single_row(int32_t qtype, const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  for (const row& r : rows) {
    if (r.qtype == qtype) return r.launch(shape, type, args);
  }
}

void launch_batch(std::string_view kernel, const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  for (const batch_row& r : batch_rows) {
    if (r.kernel == kernel) return r.launch(shape, type, args);
  }
}

}  // namespace orrery
