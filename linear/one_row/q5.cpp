#include "formats/linear.h"
#include "linear/launchers.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q5_0 : block_row_kernel<formats::q5_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q5_1 : block_row_kernel<formats::q5_1, T, SG, WG> {};

void launch_row_q5_0(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_q5_0, 1>(shape, type, args, "qlinear_xpu_kernel_q5_0");
}

void launch_row_q5_1(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_rows<qlinear_xpu_kernel_q5_1, 1>(shape, type, args, "qlinear_xpu_kernel_q5_1");
}

}  // namespace orrery
