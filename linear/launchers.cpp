#include "linear/launchers.h"

namespace orrery {

namespace {

struct row {
  weight_format format;
  void (*launch)(const row_shape&, c10::ScalarType, const row_launch&);
};

constexpr row rows[] = {
    {weight_format::q4_0, launch_row_q4_0},       {weight_format::q4_1, launch_row_q4_1},
    {weight_format::q5_0, launch_row_q5_0},       {weight_format::q5_1, launch_row_q5_1},
    {weight_format::q8_0, launch_row_q8_0},       {weight_format::nf4, launch_row_nf4},
    {weight_format::nf3, launch_row_nf3},         {weight_format::fp8_e4m3, launch_row_fp8_e4m3},
    {weight_format::fp4, launch_row_fp4},         {weight_format::fp8_e5m2, launch_row_fp8_e5m2},
    {weight_format::iq2_xxs, launch_row_iq2_xxs}, {weight_format::q2_k, launch_row_q2_k},
    {weight_format::iq1_s, launch_row_iq1_s},     {weight_format::q6_k, launch_row_q6_k},
    {weight_format::q4_k, launch_row_q4_k},       {weight_format::q5_k, launch_row_q5_k},
    {weight_format::fp6, launch_row_fp6},
};

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

void launch_single_row(weight_format format, const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  for (const row& r : rows) {
    if (r.format == format) return r.launch(shape, type, args);
  }
}

void launch_batch(std::string_view kernel, const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  for (const batch_row& r : batch_rows) {
    if (r.kernel == kernel) return r.launch(shape, type, args);
  }
}

}  // namespace orrery
