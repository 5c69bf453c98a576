// The fused kernels: which formats have them, and the instance for each kind of device. A kernel is declared here; the
// unit of its format group defines it and instantiates its launchers.
#pragma once

#include "formats/registry.h"
#include "fused/operands.h"
#include "linear/class_instances.h"
#include "linear/kernel_name.h"

namespace orrery {

// clang-format off
template <typename T, int SG, int WG, bool HAS_BIAS> struct qlinear_xpu_kernel_q4_0_2x16_qkv;
template <typename T, int SG, int WG, bool HAS_BIAS> struct qlinear_xpu_kernel_fp4_2x16_qkv;
template <typename T, int SG, int WG, bool HAS_BIAS> struct qlinear_xpu_kernel_fp8_e5m2_2x8_qkv;
template <typename T, int SG, int WG, bool HAS_BIAS> struct qlinear_xpu_kernel_fp6_qkv;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_iq2_xxs_qkv;
template <typename T, int SG, int WG> struct qlinear_xpu_kernel_iq2_xxs_qk;

template <typename T, int SG, int WG, int R> struct mlp_forward_q4_0_kernel;
template <typename T, int SG, int WG> struct mlp_forward_fp4_kernel;
template <typename T, int SG, int WG> struct mlp_forward_fp8_e5m2_kernel;
template <typename T, int SG, int WG, int R> struct mlp_forward_fp6_kernel;
template <typename T> struct mlp_forward_iq2_xxs_kernel;
// clang-format on

struct projection_plan {
  weight_format format;
  instances_of<projection_launcher> kernel;
  int run = 0;  // state_size must be a multiple of it; 0: no test
  bool quantizes_input = false;
};

template <template <typename, int, int, bool> typename Kernel, int SG, int WG>
constexpr instance_of<projection_launcher> projection_instance() {
  return {kernel_name_of<Kernel<float, SG, WG, false>>, {SG, WG, 2}, launch_projections<Kernel, SG, WG>};
}
template <template <typename, int, int, bool> typename Kernel>
constexpr instances_of<projection_launcher> projection_by_sub_group() {
  return {.narrow = projection_instance<Kernel, 16, 32>(), .wide = projection_instance<Kernel, 32, 64>()};
}
template <template <typename, int, int> typename Kernel, int SG, int WG>
constexpr instances_of<projection_launcher> dot_projection() {
  return {.narrow = {kernel_name_of<Kernel<float, SG, WG>>, {SG, WG, 2}, launch_dot_projections<Kernel, SG, WG>}};
}

struct gated_plan {
  weight_format format;
  const char* function;  // who refuses a type or a row
  instances_of<gated_launcher> kernel;
  int run = 0;  // as above
  bool rounds_up =
      false;  // the last group may have fewer rows than the others; if not, rows that fill none are left out
  bool quantizes_input = false;
  bool second_index = false;  // a group has two dimensions: the second index is its row
};

template <template <typename, int...> typename Kernel, int... Shape>
constexpr instance_of<gated_launcher> gated_instance(row_shape shape) {
  return {kernel_name<Kernel>, shape, launch_gated<Kernel, Shape...>};
}
// Groups of R rows for each kind of device, R in the template arguments or not.
template <template <typename, int, int, int> typename Kernel>
constexpr instances_of<gated_launcher> gated_by_class() {
  return {.narrow = gated_instance<Kernel, 16, 32, 2>({16, 32, 2}),
          .wide = gated_instance<Kernel, 32, 64, 2>({32, 64, 2}),
          .vela = gated_instance<Kernel, 16, 32, 8>({16, 32, 8})};
}
template <template <typename, int, int> typename Kernel>
constexpr instances_of<gated_launcher> gated_by_sub_group() {
  return {.narrow = gated_instance<Kernel, 16, 32>({16, 32, 2}), .wide = gated_instance<Kernel, 32, 64>({32, 64, 2})};
}
template <template <typename> typename Kernel>
constexpr instance_of<gated_launcher> gated_dot() {
  return gated_instance<Kernel>({32, 64, 2});
}

// clang-format off
inline constexpr projection_plan qkv_plans[] = {
    {.format = weight_format::q4_0, .kernel = projection_by_sub_group<qlinear_xpu_kernel_q4_0_2x16_qkv>(), .run = 16},
    {.format = weight_format::fp4, .kernel = projection_by_sub_group<qlinear_xpu_kernel_fp4_2x16_qkv>(), .run = 16},
    {.format = weight_format::fp8_e5m2, .kernel = projection_by_sub_group<qlinear_xpu_kernel_fp8_e5m2_2x8_qkv>(), .run = 8},
    {.format = weight_format::iq2_xxs, .kernel = dot_projection<qlinear_xpu_kernel_iq2_xxs_qkv, 32, 32>(),
     .quantizes_input = true},
    {.format = weight_format::fp6, .kernel = {.narrow = projection_instance<qlinear_xpu_kernel_fp6_qkv, 32, 64>()}, .run = 16},
};

// Query and key alone.
inline constexpr projection_plan qk_plans[] = {
    {.format = weight_format::iq2_xxs, .kernel = dot_projection<qlinear_xpu_kernel_iq2_xxs_qk, 32, 32>(),
     .quantizes_input = true},
};

inline constexpr gated_plan gated_plans[] = {
    {.format = weight_format::q4_0, .function = "mlp_forward_q4_0_xpu_t",
     .kernel = gated_by_class<mlp_forward_q4_0_kernel>(), .run = 16},
    {.format = weight_format::fp4, .function = "mlp_forward_fp4_xpu_t",
     .kernel = gated_by_sub_group<mlp_forward_fp4_kernel>(), .run = 16},
    {.format = weight_format::fp8_e5m2, .function = "mlp_forward_fp8_e5m2_xpu_t",
     .kernel = gated_by_sub_group<mlp_forward_fp8_e5m2_kernel>(), .run = 8, .rounds_up = true},
    {.format = weight_format::fp6, .function = "mlp_forward_fp6_xpu_t",
     .kernel = gated_by_class<mlp_forward_fp6_kernel>(), .run = 16, .rounds_up = true},
    {.format = weight_format::iq2_xxs, .function = "mlp_forward_iq2_xxs_xpu",
     .kernel = {.wide = gated_dot<mlp_forward_iq2_xxs_kernel>(), .vela = gated_dot<mlp_forward_iq2_xxs_kernel>()},
     .rounds_up = true, .quantizes_input = true, .second_index = true},
};
// clang-format on

}  // namespace orrery
