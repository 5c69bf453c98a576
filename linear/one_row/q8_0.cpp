#include "formats/linear.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q8_0_2x8 : row_kernel<formats::q8_0, T, SG, WG, 2> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q8_0_2x8, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q8_0_2x8, 32, 64>;

}  // namespace orrery
