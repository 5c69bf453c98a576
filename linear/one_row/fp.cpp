#include "formats/codebook.h"
#include "linear/launchers.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp4_2x16 : row_kernel<formats::fp4, T, SG, WG, 2> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp6_2x16 : row_kernel<formats::fp6, T, SG, WG, 2> {};

void launch_row_fp4(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_fp4_2x16, 2>(shape, type, args, "qlinear_xpu_kernel_fp4_2x16");
}

void launch_row_fp6(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_fp6_2x16, 2>(shape, type, args, "qlinear_xpu_kernel_fp6_2x16");
}

}  // namespace orrery
