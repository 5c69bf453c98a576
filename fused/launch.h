// The launchers of the fused kernels.
#pragma once

#include "fused/operands.h"
#include "linear/launch.h"

namespace orrery {

template <template <typename, int, int, bool> typename Kernel, int SG, int WG>
void launch_projections(const linear_decision& way, const projection_operands& on) {
  with_value_type(on.type, [&](auto t) {
    const launch_place where{"linear_xpu_fused_qkv_kernel", way.kernel};
    if (on.has_bias) return launch_bound<Kernel<decltype(t), SG, WG, true>>(way, on, where);
    launch_bound<Kernel<decltype(t), SG, WG, false>>(way, on, where);
  });
}

template <template <typename, int, int> typename Kernel, int SG, int WG>
void launch_dot_projections(const linear_decision& way, const projection_operands& on) {
  with_value_type(on.type, [&](auto t) {
    launch_bound<Kernel<decltype(t), SG, WG>>(way, on, {"linear_xpu_fused_qkv_kernel", way.kernel});
  });
}

template <template <typename, int...> typename Kernel, int... Shape>
void launch_gated(const linear_decision& way, const gated_operands& on) {
  with_value_type(on.type, [&](auto t) {
    launch_bound<Kernel<decltype(t), Shape...>>(way, on, {"mlp_xpu_kernel", way.kernel});
  });
}

}  // namespace orrery
