#include "formats/codebook.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_nf4_2x16 : row_kernel<formats::nf4, T, SG, WG, 2> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_nf3_2x16 : row_kernel<formats::nf3, T, SG, WG, 2> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_nf4_2x16, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_nf4_2x16, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_nf3_2x16, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_nf3_2x16, 32, 64>;

}  // namespace orrery
