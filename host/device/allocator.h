// Memory of the xpu devices: host pages with slack behind each allocation.
#pragma once

#include <c10/core/CachingDeviceAllocator.h>

namespace orrery::host {

// Kernels may read whole weight rows past a tensor, up to 8 of them; a row of 2^20 one-byte codes is the largest
// foreseen. Pages are committed when touched, so the slack costs only address space.
inline constexpr size_t slack_bytes = size_t(8) << 20;

// The allocator of one device; its storages grow on that device, whichever device is current.
c10::Allocator& device_allocator(c10::DeviceIndex device);

// Registers an allocator for xpu, and one for the CPU, in front of PyTorch's own, that obeys `cpu_memory_on`.
void register_allocators();

// Whether the memory came from here and so has slack behind it.
bool has_slack(const c10::DataPtr& data);

// While one exists, CPU tensors made on this thread get memory of an xpu device, so that they can become xpu tensors
// without a copy.
class cpu_memory_on {
 public:
  explicit cpu_memory_on(c10::DeviceIndex device);
  ~cpu_memory_on();
  cpu_memory_on(const cpu_memory_on&) = delete;
  cpu_memory_on& operator=(const cpu_memory_on&) = delete;

 private:
  c10::DeviceIndex previous_;
};

}  // namespace orrery::host
