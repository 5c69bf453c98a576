#include "formats/linear.h"
#include "linear/launchers.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q8_0_2x8 : row_kernel<formats::q8_0, T, SG, WG, 2> {};

void launch_row_q8_0(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_q8_0_2x8, 2>(shape, type, args, "qlinear_xpu_kernel_q8_0_2x8");
}

}  // namespace orrery
