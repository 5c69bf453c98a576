#include "formats/codebook.h"
#include "fused/gated_kernel.h"
#include "fused/projection_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, bool HAS_BIAS>
struct qlinear_xpu_kernel_fp8_e5m2_2x8_qkv : projection_kernel<formats::fp8_e5m2_scaled, T, SG, WG, HAS_BIAS> {};

template projection_launcher launch_projections<qlinear_xpu_kernel_fp8_e5m2_2x8_qkv, 16, 32>;
template projection_launcher launch_projections<qlinear_xpu_kernel_fp8_e5m2_2x8_qkv, 32, 64>;

template <typename T, int SG, int WG>
struct mlp_forward_fp8_e5m2_kernel : gated_kernel<formats::fp8_e5m2_scaled, T, SG, WG, 2> {};

template gated_launcher launch_gated<mlp_forward_fp8_e5m2_kernel, 16, 32>;
template gated_launcher launch_gated<mlp_forward_fp8_e5m2_kernel, 32, 64>;

}  // namespace orrery
