#include "formats/codebook.h"
#include "fused/gated_kernel.h"
#include "fused/projection_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, bool HAS_BIAS>
struct qlinear_xpu_kernel_fp4_2x16_qkv : projection_kernel<formats::fp4, T, SG, WG, HAS_BIAS> {};

template projection_launcher launch_projections<qlinear_xpu_kernel_fp4_2x16_qkv, 16, 32>;
template projection_launcher launch_projections<qlinear_xpu_kernel_fp4_2x16_qkv, 32, 64>;

template <typename T, int SG, int WG>
struct mlp_forward_fp4_kernel : gated_kernel<formats::fp4, T, SG, WG, 2> {};

template gated_launcher launch_gated<mlp_forward_fp4_kernel, 16, 32>;
template gated_launcher launch_gated<mlp_forward_fp4_kernel, 32, 64>;

}  // namespace orrery
