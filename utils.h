// Launches of kernels: on the queue of a device's current stream, with a profiler record.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <functional>
#include <string>
#include <sycl/sycl.hpp>

#include "includes/item.h"
#include "includes/xpu.h"

namespace orrery {

// Source unit, function and position of a launch. Diagnostics only.
struct launch_place {
  const char* file;
  const char* function;
  uint32_t line = __builtin_LINE();
  uint32_t column = 1;
};

inline sycl::queue& current_queue(c10::Device device) {
  return xpu::get_queue_from_stream(c10::impl::getDeviceGuardImpl(device.type())->getStream(device));
}

// Submits on the device's current stream; neither waits nor records.
template <typename CommandGroup>
sycl::event submit(c10::Device device, const launch_place& where, CommandGroup&& cgf) {
  sycl::queue& queue = current_queue(device);
#ifdef SYCL_EXT_ORRERY_HOST
  return queue.submit(cgf, {where.file, where.function, where.line, where.column});
#else
  (void)where;
  return queue.submit(cgf);
#endif
}

constexpr const char* default_record = "gridrun_kernel";

// Submits one nd_range kernel that `make(handler)` builds, waits if asked to, and records it.
template <int D, typename Make>
void launch(c10::Device device, const sycl::nd_range<D>& range, const launch_place& where, Make&& make,
            const char* record = default_record, bool wait = false) {
  sycl::event event = submit(device, where, [&](sycl::handler& h) { parallel_for(h, range, make(h)); });
  if (wait) event.wait();
  xpu::profiler_record(record, event);
}

// Submits a caller's own command group and records it under `name`.
inline void submit_kernel(std::function<void(sycl::handler&)> cgf, c10::Device device, const char* name) {
  sycl::event event = submit(device, {"utils", "submit_kernel", 12, 29}, std::move(cgf));
  xpu::profiler_record(name, event);
}

}  // namespace orrery
