// Lets the tests launch kernels themselves where no operation brings them to all of their instances.
#include <pybind11/pybind11.h>
#include <torch/csrc/utils/pybind.h>

#include <stdexcept>
#include <string>

#include "includes/type_switch.h"
#include "linear/engine/dotgrid.h"
#include "linear/instances.h"
#include "module/device_class.h"
#include "module/operations.h"
#include "native_test.h"
#include "norms/fused_norm.h"

namespace {

const orrery::kernel_instance& pair_instance(const std::string& kernel, int sub_group) {
  for (const orrery::format_plan& plan : orrery::plans) {
    for (const orrery::row_pairs_plan& pairs : plan.pairs) {
      for (const orrery::kernel_instance* one : {&pairs.kernel.narrow, &pairs.kernel.wide}) {
        if (one->launch != nullptr && one->name == kernel && one->shape.sub_group == sub_group) return *one;
      }
    }
  }
  throw std::invalid_argument("no instance " + kernel + " with sub-groups of " + std::to_string(sub_group));
}

// Tensors are addresses on the first device.
void launch_pairs(const std::string& kernel, int sub_group, const std::string& type, uintptr_t weight,
                  uint32_t scale_offset, uintptr_t x, uintptr_t y, uint64_t n, uint64_t state_size,
                  uint64_t output_size, bool rounds_up) {
  const orrery::kernel_instance& instance = pair_instance(kernel, sub_group);
  const uint64_t group = instance.shape.work_group;
  orrery::linear_decision way;
  way.kernel = instance.name;
  way.global = {(output_size + (rounds_up ? 1 : 0)) / 2 * group, (n + 1) / 2};
  way.local = {group, 1};
  way.scale_offset = scale_offset;
  instance.launch(way, {.type = scalar_type(type),
                        .n = n,
                        .state_size = state_size,
                        .output_size = output_size,
                        .weight = reinterpret_cast<const uint8_t*>(weight),
                        .x = reinterpret_cast<const void*>(x),
                        .y = reinterpret_cast<void*>(y),
                        .device = c10::Device(c10::DeviceType::XPU, 0)});
}

// The matrix engine whatever the sizes, format and type; with 16 columns for device class 0, else with 8.
at::Tensor dotgrid_forward(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, uint64_t output_size,
                           uint32_t device_class) {
  orrery::linear_request request;
  request.format = orrery::weight_format{qtype};
  request.type = input.scalar_type();
  request.n = input.size(0);
  request.state_size = input.size(1);
  request.output_size = output_size;
  request.device_class = device_class;
  return orrery::dotgrid_forward(input, weight, request, orrery::decide_matrix_engine(request));
}

// Contiguous tensors, normalized over their last dimension; with residuals, and with 64-bit offsets on request.
void fused_norm(const at::Tensor& input, const std::optional<at::Tensor>& add1, const std::optional<at::Tensor>& add2,
                const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias, float eps,
                const at::Tensor& output, bool one_moment, bool wide_index) {
  const auto data = [](const std::optional<at::Tensor>& t) { return t ? t->const_data_ptr() : nullptr; };
  const uint64_t row_length = input.size(-1);
  const orrery::norm_operands on{.input = input.const_data_ptr(),
                                 .add1 = data(add1),
                                 .add2 = data(add2),
                                 .weight = data(weight),
                                 .bias = data(bias),
                                 .output = output.data_ptr(),
                                 .rows = input.numel() / row_length,
                                 .row_length = static_cast<uint32_t>(row_length),
                                 .eps = eps};
  orrery::with_value_type(input.scalar_type(), [&](auto type) {
    using T = decltype(type);
    const auto plan = orrery::plan_norm<T>(one_moment, row_length, wide_index, orrery::get_max_work_group_size());
    orrery::launch_fused_norm<T>(input.device(), plan, on);
  });
}

}  // namespace

PYBIND11_MODULE(orrery_launch, m) {
  m.def("launch_pairs", launch_pairs);
  m.def("dotgrid_forward", dotgrid_forward);
  m.def("fused_norm", fused_norm);
  m.def("add_layer_norm", orrery::add_layer_norm);
  m.def("add_rms_norm", orrery::add_rms_norm);
}
