#include "formats/linear.h"
#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_0_2x16_batch : pair_kernel<formats::q4_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_0_2x16_by_batch : pair_kernel<formats::q4_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_1_2x16_batch : pair_kernel<formats::q4_1, T, SG, WG> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16_batch, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16_by_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_0_2x16_by_batch, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_1_2x16_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_1_2x16_batch, 32, 64>;

}  // namespace orrery
