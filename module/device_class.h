// What a unit learns about the device when the library loads. Each unit that asks keeps its own copy.
#pragma once

#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <cstdint>
#include <exception>
#include <string>
#include <sycl/sycl.hpp>

#include "includes/xpu.h"
#include "linear/dispatch.h"

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

// Imports PyTorch's Python side where there is no device yet: it may bring one, and this module may be imported first.
// Throws std::runtime_error with what kept the device away, if PyTorch was told.
void bring_device();

// Why the first question at load failed; empty if none did. The entry point of the module tells it.
inline std::string& load_failure() {
  static std::string text;
  return text;
}

// For static initialisers: an exception would end the process before the module could raise anything.
template <typename Value>
Value ask_at_load(Value (*question)()) {
  try {
    bring_device();
    return question();
  } catch (const c10::Error& error) {
    if (load_failure().empty()) load_failure() = error.what_without_backtrace();
  } catch (const std::exception& error) {
    if (load_failure().empty()) load_failure() = error.what();
  }
  return Value{};
}

}  // namespace orrery
