// orrery_host._C: what the Python package needs of the device.
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <torch/csrc/utils/pybind.h>

#include <thread>

#include "accelerator.h"
#include "allocator.h"
#include "guard.h"
#include "hooks.h"
#include "host_memory.h"
#include "kernels.h"

namespace orrery::host {
namespace {

namespace py = pybind11;
using stats = c10::CachingDeviceAllocator::DeviceStats;

// False if there is an xpu device already.
bool register_device() {
  if (c10::impl::hasDeviceGuardImpl(c10::DeviceType::XPU)) return false;
  const sycl::ext::orrery::settings settings = sycl::ext::orrery::settings_from_environment();
  sycl::ext::orrery::configure(settings);
  put_cuda_aside();
  register_allocators();
  register_hooks();
  register_guard(settings.device_count);
  register_kernels();
  return true;
}

c10::DeviceAllocator& xpu_memory() { return *c10::getDeviceAllocator(c10::DeviceType::XPU); }

py::dict stat_dict(const c10::CachingAllocator::StatArray& array) {
  constexpr const char* pools[] = {"all", "small_pool", "large_pool"};
  py::dict by_pool;
  for (size_t i = 0; i < array.size(); ++i) {
    py::dict values;
    values["current"] = array[i].current;
    values["peak"] = array[i].peak;
    values["allocated"] = array[i].allocated;
    values["freed"] = array[i].freed;
    by_pool[pools[i]] = values;
  }
  return by_pool;
}

py::dict memory_stats(int device) {
  const stats all = xpu_memory().getDeviceStats(device);
  py::dict result;
  result["allocation"] = stat_dict(all.allocation);
  result["segment"] = stat_dict(all.segment);
  result["active"] = stat_dict(all.active);
  result["allocated_bytes"] = stat_dict(all.allocated_bytes);
  result["reserved_bytes"] = stat_dict(all.reserved_bytes);
  result["active_bytes"] = stat_dict(all.active_bytes);
  result["requested_bytes"] = stat_dict(all.requested_bytes);
  result["num_alloc_retries"] = all.num_alloc_retries;
  result["num_ooms"] = all.num_ooms;
  result["num_device_alloc"] = all.num_device_alloc;
  result["num_device_free"] = all.num_device_free;
  return result;
}

py::dict properties(int device) {
  const sycl::device of = queue_of(current_stream(device)).get_device();
  py::dict result;
  result["name"] = of.get_info<sycl::info::device::name>();
  result["max_work_group_size"] = of.get_info<sycl::info::device::max_work_group_size>();
  result["max_compute_units"] = of.get_info<sycl::info::device::max_compute_units>();
  result["local_mem_size"] = of.get_info<sycl::info::device::local_mem_size>();
  result["total_memory"] = xpu_memory().getMemoryInfo(device).second;
  return result;
}

py::tuple stream_data(const c10::Stream& stream) {
  const auto data = stream.pack3();
  return py::make_tuple(data.stream_id, data.device_index, int(data.device_type));
}

c10::Stream stream_from(int64_t id, int device, int type) {
  return c10::Stream::unpack3(id, c10::DeviceIndex(device), c10::DeviceType(type));
}

py::object optional_text(const std::optional<std::string>& text) {
  return text ? py::object(py::str(*text)) : py::none();
}

// In the order of the fields of the Python class `Launch`.
py::list recording_end() {
  py::list launches;
  for (const auto& l : sycl::ext::orrery::recording_end())
    launches.append(py::make_tuple(optional_text(l.name), l.kernel, l.instance, l.file, l.function, l.line, l.column,
                                   py::tuple(py::cast(l.global_size)), py::tuple(py::cast(l.local_size)),
                                   l.sub_group_size, l.local_memory, l.waited, l.device, l.seconds));
  return launches;
}

}  // namespace
}  // namespace orrery::host

PYBIND11_MODULE(TORCH_EXTENSION_NAME, m) {
  using namespace orrery::host;
  m.def("register_device", &register_device);
  m.def("device_count", &device_count);
  m.def("current_device", &current_device);
  m.def("set_device", [](int device) { set_current_device(device); });
  m.def("exchange_device", [](int device) {
    const int previous = current_device();
    if (device >= 0) set_current_device(device);
    return previous;
  });
  m.def("settle_autograd", &settle_autograd, py::call_guard<py::gil_scoped_release>());
  m.def("synchronize", [](int device) { checked_device(device); });
  m.def("current_stream", [](int device) { return stream_data(current_stream(device)); });
  m.def(
      "set_stream",
      [](int64_t id, int device, int type) {
        set_current_stream(stream_from(id, device, type));
        set_current_device(device);
      },
      py::arg("stream_id"), py::arg("device_index"), py::arg("device_type"));
  m.def("queue_address", [](int64_t id, int device, int type) {
    return reinterpret_cast<uintptr_t>(&queue_of(stream_from(id, device, type)));
  });
  m.def("current_queue_address",
        [](int device) { return reinterpret_cast<uintptr_t>(&queue_of(current_stream(device))); });
  m.def("elapsed_milliseconds", [](uintptr_t begin, uintptr_t end) {
    return elapsed_milliseconds(reinterpret_cast<const void*>(begin), reinterpret_cast<const void*>(end));
  });
  m.def("default_generator", [](int device) { return default_generator(device); });
  m.def("properties", &properties);
  m.def("empty_cache", [] { xpu_memory().emptyCache(); });
  m.def("memory_stats", &memory_stats);
  m.def("reset_peak_memory_stats", [](int device) { xpu_memory().resetPeakStats(device); });
  m.def("reset_accumulated_memory_stats", [](int device) { xpu_memory().resetAccumulatedStats(device); });
  m.def("memory_info", [](int device) { return xpu_memory().getMemoryInfo(device); });
  m.def("recording_begin", &sycl::ext::orrery::recording_begin);
  m.def("recording_end", &recording_end);
  m.def("measure_host_memory", [](const std::string& root) {
    const host_memory memory = measure_host_memory(root);
    return std::make_pair(memory.available, memory.total);
  });
  m.attr("slack_bytes") = slack_bytes;
}
