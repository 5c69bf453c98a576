#include "formats/codebook.h"

#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_nf4_2x16_batch : pair_kernel<formats::nf4, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp4_2x16_batch : pair_kernel<formats::fp4, T, SG, WG> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_nf4_2x16_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_nf4_2x16_batch, 32, 64>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp4_2x16_batch, 16, 32>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_fp4_2x16_batch, 32, 64>;

}  // namespace orrery
