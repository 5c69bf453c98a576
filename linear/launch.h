// Launches what a decision describes: its ranges, name, record and wait. Everything else comes from the operands.
#pragma once

#include "includes/type_switch.h"
#include "linear/dispatch.h"
#include "utils.h"

namespace orrery {

// A range from the first D sizes. sycl::range has no default constructor, so it cannot be filled in a loop.
template <int D, typename Sizes>
sycl::range<D> range_of(const Sizes& n) {
  if constexpr (D == 1) {
    return {n[0]};
  } else {
    static_assert(D == 2);
    return {n[0], n[1]};
  }
}

// Submits the kernel that make(handler) builds.
template <int D, typename Make>
void launch_decided(const linear_decision& way, c10::Device device, const launch_place& where, Make make) {
  const sycl::nd_range<D> ranges(range_of<D>(way.global), range_of<D>(way.local));
  launch(device, ranges, where, make, way.record, way.waits);
}

// A kernel declares the dimensions of its groups, and bind() sets its arguments and local memory.
template <typename Kernel, typename Operands>
void launch_bound(const linear_decision& way, const Operands& on, const launch_place& where) {
  launch_decided<Kernel::dimensions>(way, on.device, where, [&](sycl::handler& h) {
    Kernel kernel;
    kernel.bind(way, on, h);
    return kernel;
  });
}

template <template <typename, int...> typename Kernel, int... Shape>
void launch_kernel(const linear_decision& way, const linear_operands& on) {
  with_value_type(on.type, [&](auto t) {
    launch_bound<Kernel<decltype(t), Shape...>>(way, on, {"linear_xpu_kernel", way.kernel});
  });
}

}  // namespace orrery
