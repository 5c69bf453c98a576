#include "formats/codebook.h"
#include "fused/gated_kernel.h"
#include "fused/projection_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, bool HAS_BIAS>
struct qlinear_xpu_kernel_fp6_qkv : projection_kernel<formats::fp6, T, SG, WG, HAS_BIAS> {};

template projection_launcher launch_projections<qlinear_xpu_kernel_fp6_qkv, 32, 64>;

template <typename T, int SG, int WG, int R>
struct mlp_forward_fp6_kernel : gated_kernel<formats::fp6, T, SG, WG, R> {};

template gated_launcher launch_gated<mlp_forward_fp6_kernel, 16, 32, 2>;
template gated_launcher launch_gated<mlp_forward_fp6_kernel, 32, 64, 2>;
template gated_launcher launch_gated<mlp_forward_fp6_kernel, 16, 32, 8>;

}  // namespace orrery
