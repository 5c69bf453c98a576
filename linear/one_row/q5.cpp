#include "formats/linear.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q5_0 : block_row_kernel<formats::q5_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q5_1 : block_row_kernel<formats::q5_1, T, SG, WG> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q5_0, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q5_0, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q5_1, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q5_1, 32, 64>;

}  // namespace orrery
