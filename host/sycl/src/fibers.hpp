// Fibers: strands that stop at a barrier and go on later, each on its own stack, switched by Boost.Context.
#pragma once

#include "sycl/sycl.hpp"

namespace sycl::detail {

void run_fibers(const launch_plan& plan, group_state& g, bool shuffle, uint64_t seed);

}  // namespace sycl::detail
