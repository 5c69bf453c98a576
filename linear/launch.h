// How a decision becomes a launch. The decision's ranges, name, record and wait are what is submitted; a kernel takes
// the rest from the operands.
#pragma once

#include "includes/type_switch.h"
#include "linear/dispatch.h"
#include "utils.h"

namespace orrery {

// The first D of the sizes. The standard gives a range no default to be filled.
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

// A kernel says how many dimensions its groups have, and bind() sets its arguments and its local memory.
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
