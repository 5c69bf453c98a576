#include "formats/grid.h"
#include "fused/dot_projection_kernel.h"
#include "fused/gated_dot_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_iq2_xxs_qkv : dot_projection_kernel<formats::iq2_xxs, T, SG, WG> {};
template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_iq2_xxs_qk : dot_projection_kernel<formats::iq2_xxs, T, SG, WG> {};

template <typename T>
struct mlp_forward_iq2_xxs_kernel : gated_dot_kernel<formats::iq2_xxs, T> {};

template projection_launcher launch_dot_projections<qlinear_xpu_kernel_iq2_xxs_qkv, 32, 32>;
template projection_launcher launch_dot_projections<qlinear_xpu_kernel_iq2_xxs_qk, 32, 32>;
template gated_launcher launch_gated<mlp_forward_iq2_xxs_kernel>;

}  // namespace orrery
