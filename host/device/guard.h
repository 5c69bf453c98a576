// Devices, their streams with the queues behind them, and events.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/Stream.h>

#include <sycl/sycl.hpp>

namespace orrery::host {

c10::DeviceIndex device_count();
c10::DeviceIndex current_device();
void set_current_device(c10::DeviceIndex device);

// The index itself, or the current device for -1. Throws for a device that does not exist.
c10::DeviceIndex checked_device(c10::DeviceIndex device);

c10::Stream current_stream(c10::DeviceIndex device);
void set_current_stream(c10::Stream stream);
sycl::queue& queue_of(c10::Stream stream);

// Time between two recorded events of the guard.
double elapsed_milliseconds(const void* begin, const void* end);

void register_guard(int devices);

}  // namespace orrery::host
