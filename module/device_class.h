// Queries of the device when the library loads. Each unit keeps its own copy of the result.
#pragma once

#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <cstdint>
#include <exception>
#include <string>
#include <sycl/sycl.hpp>

#include "includes/xpu.h"
#include "linear/dispatch.h"
#include "module/bring_device.h"

namespace orrery {

inline sycl::device current_xpu_device() {
  const c10::Device current(c10::DeviceType::XPU, -1);
  const c10::Stream stream = c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU)->getStream(current);
  return xpu::get_queue_from_stream(stream).get_device();
}

inline uint32_t get_device_class() {
  return device_class_of(current_xpu_device().get_info<sycl::info::device::name>());
}

inline uint64_t get_max_work_group_size() {
  return static_cast<uint32_t>(current_xpu_device().get_info<sycl::info::device::max_work_group_size>());
}

// Why the first failed query at load failed; empty if none did. The module's entry point raises it.
inline std::string& load_failure() {
  static std::string text;
  return text;
}

// For static initialisers: an exception there would end the process before the module could raise it.
template <typename Value>
Value ask_at_load(Value (*query)()) {
  try {
    bring_device();
    return query();
  } catch (const c10::Error& error) {
    if (load_failure().empty()) load_failure() = error.what_without_backtrace();
  } catch (const std::exception& error) {
    if (load_failure().empty()) load_failure() = error.what();
  }
  return Value{};
}

}  // namespace orrery
