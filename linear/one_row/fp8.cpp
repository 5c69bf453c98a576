#include "formats/codebook.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e4m3_2x8 : row_kernel<formats::fp8_e4m3, T, SG, WG, 2> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e5m2_2x8 : row_kernel<formats::fp8_e5m2, T, SG, WG, 2> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e4m3_2x8, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e4m3_2x8, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e5m2_2x8, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e5m2_2x8, 32, 64>;

}  // namespace orrery
