// What the units that make up a launch share.
#pragma once

#include "sycl/sycl.hpp"

namespace sycl::detail {

// Stands for as long as the calling thread runs work-groups, whose local memory starts at `memory`.
class kernel_scope {
 public:
  explicit kernel_scope(char* memory) { local_memory = memory; }
  ~kernel_scope() { local_memory = nullptr; }
  kernel_scope(const kernel_scope&) = delete;
  kernel_scope& operator=(const kernel_scope&) = delete;
};
inline bool inside_kernel() { return local_memory != nullptr; }

// Whether the calling thread collects launches.
bool recording();
// The number by which the launch's event finds the record again.
uint64_t add_record(ext::orrery::launch_record r, const std::type_info& kernel);

}  // namespace sycl::detail
