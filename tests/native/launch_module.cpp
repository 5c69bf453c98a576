// Lets the tests launch the kernels for a few input rows themselves: no device's class brings the dispatch to all of
// their instances.
#include <pybind11/pybind11.h>

#include <stdexcept>
#include <string>

#include "linear/instances.h"
#include "native_test.h"

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

}  // namespace

PYBIND11_MODULE(orrery_launch, m) { m.def("launch_pairs", launch_pairs); }
