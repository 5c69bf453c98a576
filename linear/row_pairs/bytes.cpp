#include "formats/codebook.h"
#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e5m2_2x8_batch : pair_kernel<formats::fp8_e5m2, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q8_0_2x8_batch : pair_kernel<formats::q8_0, T, SG, WG> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e5m2_2x8_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp8_e5m2_2x8_batch, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q8_0_2x8_batch, 16, 32>;

}  // namespace orrery
