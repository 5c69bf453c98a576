#include "formats/linear.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, int R>
struct qlinear_xpu_kernel_q4_0_2x16 : row_kernel<formats::q4_0, T, SG, WG, R> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16, 16, 32, 2>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16, 32, 64, 2>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16, 16, 32, 8>;

}  // namespace orrery
