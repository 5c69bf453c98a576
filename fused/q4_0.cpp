#include "formats/linear.h"
#include "fused/gated_kernel.h"
#include "fused/projection_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, bool HAS_BIAS>
struct qlinear_xpu_kernel_q4_0_2x16_qkv : projection_kernel<formats::q4_0, T, SG, WG, HAS_BIAS> {};

template projection_launcher launch_projections<qlinear_xpu_kernel_q4_0_2x16_qkv, 16, 32>;
template projection_launcher launch_projections<qlinear_xpu_kernel_q4_0_2x16_qkv, 32, 64>;

template <typename T, int SG, int WG, int R>
struct mlp_forward_q4_0_kernel : gated_kernel<formats::q4_0, T, SG, WG, R> {};

template gated_launcher launch_gated<mlp_forward_q4_0_kernel, 16, 32, 2>;
template gated_launcher launch_gated<mlp_forward_q4_0_kernel, 32, 64, 2>;
template gated_launcher launch_gated<mlp_forward_q4_0_kernel, 16, 32, 8>;

}  // namespace orrery
