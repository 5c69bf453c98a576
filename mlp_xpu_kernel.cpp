// mlp_forward_xpu behind its wrapper: the plan, the checks, and the launch. The kernels stand in fused/.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include "fused/instances.h"
#include "fused/plans.h"
#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "linear/checks.h"
#include "linear/one_row/quantize_q8_1.h"
#include "module/device_class.h"
#include "module/operations.h"

namespace orrery {
namespace {

const uint32_t device_class = ask_at_load(get_device_class);

linear_decision decide(const gated_plan& plan, uint64_t output_size, uint64_t state_size) {
  linear_decision way = decision_of(plan, device_class);
  const uint64_t rows = way.shape.rows, second = plan.second_index ? rows : 1;
  const uint64_t first = way.shape.work_group / second;
  way.global = {(output_size + (plan.rounds_up ? rows - 1 : 0)) / rows * first, second};
  way.local = {first, second};
  way.scale_offset = scale_offset(plan.format, output_size, state_size);
  return way;
}

}  // namespace

at::Tensor mlp_forward_xpu(const at::Tensor& input, const at::Tensor& weight_gate, const at::Tensor& weight_up,
                           int64_t batch_size, int64_t state_size, int64_t output_size, int32_t act_type,
                           int32_t qtype) {
  const gated_plan& plan = plan_of(gated_plans, weight_format{qtype}, device_class, "mlp_forward_xpu");
  ORRERY_ASSERT(batch_size == 1);
  const linear_decision way = decide(plan, static_cast<uint64_t>(output_size), static_cast<uint64_t>(state_size));
  const c10::ScalarType type = input.scalar_type();
  const c10::Device device = weight_gate.device();
  const at::Tensor result = at::empty({1, output_size}, at::TensorOptions().dtype(type).device(device));
  at::Tensor x = input;
  if (way.quantizes_input) x = quantize_q8_1(input, 1, static_cast<uint64_t>(state_size), device);
  check_value_type(type, plan.function);
  check_row(plan.function, static_cast<uint64_t>(state_size), way.row_multiple, "mlp_xpu_kernel");
  plan.kernel.of(device_class)
      .launch(way, {.type = type,
                    .state_size = static_cast<uint64_t>(state_size),
                    .output_size = static_cast<uint64_t>(output_size),
                    .gate = static_cast<const uint8_t*>(weight_gate.data_ptr()),
                    .up = static_cast<const uint8_t*>(weight_up.data_ptr()),
                    .x = x.data_ptr(),
                    .act_type = act_type,
                    .result = result.data_ptr(),
                    .device = device});
  return result;
}

}  // namespace orrery
