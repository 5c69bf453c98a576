// Lets the tests launch kernels themselves where no operation brings them to all of their instances.
#include <pybind11/pybind11.h>
#include <torch/csrc/utils/pybind.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "includes/item.h"
#include "includes/type_switch.h"
#include "linear/engine/dotgrid.h"
#include "linear/instances.h"
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

// The rows of `input` with residuals, which no operation passes, and by any plan. An instance with 64-bit indexes is
// chosen for tensors of 4 GiB and more alone.
void launch_norm(bool one_moment, int vec_size, bool wide_index, uint64_t work_group, const at::Tensor& input,
                 const std::optional<at::Tensor>& add1, const std::optional<at::Tensor>& add2,
                 const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias,
                 const at::Tensor& output, float eps) {
  const auto address = [](const std::optional<at::Tensor>& x) { return x.has_value() ? x->data_ptr() : nullptr; };
  const orrery::norm_operands on{.input = input.data_ptr(),
                                 .add1 = address(add1),
                                 .add2 = address(add2),
                                 .weight = address(weight),
                                 .bias = address(bias),
                                 .output = output.data_ptr(),
                                 .rows = static_cast<uint64_t>(input.size(0)),
                                 .row_length = static_cast<uint32_t>(input.size(1)),
                                 .eps = eps};
  orrery::with_value_type(input.scalar_type(), [&](auto type) {
    orrery::launch_fused_norm<decltype(type)>(input.device(), {one_moment, vec_size, wide_index, work_group}, on);
  });
}

}  // namespace

PYBIND11_MODULE(orrery_launch, m) {
  m.def("launch_pairs", launch_pairs);
  m.def("dotgrid_forward", dotgrid_forward);
  m.def("launch_norm", launch_norm);
  m.def("add_layer_norm", orrery::add_layer_norm);
  m.def("add_rms_norm", orrery::add_rms_norm);
  m.attr("sub_groups_are_vectors") = orrery::last_finishes;
}
