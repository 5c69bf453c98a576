// Shared by the units that run a launch.
#pragma once

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

#include "sycl/sycl.hpp"

namespace sycl::detail {

// Exists while the calling thread runs work-groups; their local memory starts at `memory`. Kernels keep subnormals and
// round to nearest even if the caller has set its own thread otherwise (torch.set_flush_denormal): a result must not
// depend on which thread runs a group.
class kernel_scope {
 public:
  explicit kernel_scope(char* memory) {
    local_memory = memory;
#if defined(__SSE__)
    if ((control_ & control_bits) != standard) _mm_setcsr(standard);
#endif
  }
  ~kernel_scope() {
    local_memory = nullptr;
#if defined(__SSE__)
    if ((control_ & control_bits) != standard) _mm_setcsr(control_);
#endif
  }
  kernel_scope(const kernel_scope&) = delete;
  kernel_scope& operator=(const kernel_scope&) = delete;

 private:
#if defined(__SSE__)
  static constexpr unsigned standard = 0x1F80, control_bits = 0xFFC0;
  const unsigned control_ = _mm_getcsr();
#endif
};
inline bool inside_kernel() { return local_memory != nullptr; }

// The functor's name without namespace and template arguments.
std::string kernel_name(const std::type_info& kernel);

// Whether the calling thread records launches.
bool recording();
// The number by which the launch's event finds the record again.
uint64_t add_record(ext::orrery::launch_record r, const std::type_info& kernel);

}  // namespace sycl::detail
