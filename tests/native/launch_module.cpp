// Lets the tests launch the kernels for a few input rows themselves: no device's class brings the dispatch to all of
// their instances.
#include <pybind11/pybind11.h>

#include <string>

#include "linear/launch.h"
#include "native_test.h"

namespace {

// The instance with sub-groups of that size. Tensors are addresses on the first device.
void launch_batch(const std::string& kernel, int sub_group, const std::string& type, uintptr_t weight,
                  uint32_t scale_offset, uintptr_t x, uintptr_t y, uint64_t n, uint64_t state_size,
                  uint64_t output_size) {
  orrery::row_launch args;
  args.state_size = state_size;
  args.output_size = output_size;
  args.weight = reinterpret_cast<const uint8_t*>(weight);
  args.scale_offset = scale_offset;
  args.x = reinterpret_cast<const void*>(x);
  args.y = reinterpret_cast<void*>(y);
  args.device = c10::Device(c10::DeviceType::XPU, 0);
  args.n = n;
  orrery::launch_batch(kernel, {sub_group, 2 * sub_group, 2}, scalar_type(type), args);
}

}  // namespace

PYBIND11_MODULE(orrery_launch, m) { m.def("launch_batch", launch_batch); }
