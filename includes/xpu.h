// The SYCL queue of a PyTorch `xpu` stream, and the profiler's record.
#pragma once

#include <c10/core/Stream.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <string>
#include <sycl/sycl.hpp>

namespace xpu {

// The native handle of an `xpu` stream is its queue.
inline sycl::queue& get_queue_from_stream(c10::Stream stream) {
  const auto* guard = c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU);
  return *static_cast<sycl::queue*>(guard->getStreamNativeHandle(stream));
}

inline void profiler_record(const std::string& name, const sycl::event& event) {
#ifdef SYCL_EXT_ORRERY_HOST
  sycl::ext::orrery::record(name, event);
#else
  (void)name;
  (void)event;
#endif
}

}  // namespace xpu
