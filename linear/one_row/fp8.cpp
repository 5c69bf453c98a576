#include "formats/codebook.h"
#include "linear/launchers.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e4m3_2x8 : row_kernel<formats::fp8_e4m3, T, SG, WG, 2> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e5m2_2x8 : row_kernel<formats::fp8_e5m2, T, SG, WG, 2> {};

void launch_row_fp8_e4m3(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_fp8_e4m3_2x8, 2>(shape, type, args, "qlinear_xpu_kernel_fp8_e4m3_2x8");
}

void launch_row_fp8_e5m2(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_fp8_e5m2_2x8, 2>(shape, type, args, "qlinear_xpu_kernel_fp8_e5m2_2x8");
}

}  // namespace orrery
