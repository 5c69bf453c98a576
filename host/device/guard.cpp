#include "guard.h"

#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

#include "fork.h"

namespace orrery::host {
namespace {

using clock = std::chrono::steady_clock;

// Stream 0 is the default one. Then come the streams of normal priority and those of high priority, each handed out
// round robin.
constexpr int pool_streams = 32;
constexpr int streams = 1 + 2 * pool_streams;

struct device_state {
  std::array<std::atomic<sycl::queue*>, streams> queues{};
  std::array<std::atomic<unsigned>, 2> handed_out{};  // by priority
};

int count = 0;
std::vector<device_state>* devices = nullptr;  // never destroyed: tensors and streams may outlive every static object
std::mutex queues_mutex;

thread_local c10::DeviceIndex current = 0;
thread_local std::vector<c10::StreamId> current_streams;

c10::Stream make_stream(c10::DeviceIndex device, c10::StreamId id) {
  return c10::Stream(c10::Stream::UNSAFE, {c10::DeviceType::XPU, device}, id);
}

c10::Stream stream_from_pool(c10::DeviceIndex device, bool high_priority) {
  const unsigned turn = (*devices)[device].handed_out[high_priority]++ % pool_streams;
  return make_stream(device, 1 + high_priority * pool_streams + turn);
}

struct event {
  clock::time_point recorded;
};

// A launch is complete when it returns, so queries return true and waits do nothing.
class guard final : public c10::impl::DeviceGuardImplInterface {
 public:
  c10::DeviceType type() const override { return c10::DeviceType::XPU; }
  c10::DeviceIndex deviceCount() const noexcept override { return count; }
  c10::Device getDevice() const override { return {type(), current}; }
  void setDevice(c10::Device device) const override { set_current_device(device.index()); }
  void uncheckedSetDevice(c10::Device device) const noexcept override {
    if (device.index() >= 0 && device.index() < count) current = device.index();
  }
  c10::Device exchangeDevice(c10::Device device) const override {
    const c10::Device previous = getDevice();
    set_current_device(device.index());
    return previous;
  }
  c10::DeviceCapability getDeviceCapability(c10::Device) const override { return {}; }

  c10::Stream getStream(c10::Device device) const override { return current_stream(device.index()); }
  c10::Stream getDefaultStream(c10::Device device) const override {
    return make_stream(checked_device(device.index()), 0);
  }
  c10::Stream getStreamFromGlobalPool(c10::Device device, bool high_priority) const override {
    return stream_from_pool(checked_device(device.index()), high_priority);
  }
  c10::Stream getNewStream(c10::Device device, int priority) const override {
    return stream_from_pool(checked_device(device.index()), priority < 0);
  }
  c10::Stream exchangeStream(c10::Stream stream) const override {
    const c10::Stream previous = current_stream(stream.device_index());
    set_current_stream(stream);
    return previous;
  }
  void* getStreamNativeHandle(const c10::Stream stream) const override { return &queue_of(stream); }
  bool queryStream(const c10::Stream&) const override { return true; }
  void synchronizeStream(const c10::Stream&) const override {}
  void synchronizeDevice(c10::DeviceIndex device) const override { checked_device(device); }

  void record(void** handle, const c10::Stream&, c10::DeviceIndex, c10::EventFlag) const override {
    if (!*handle) *handle = new event;
    static_cast<event*>(*handle)->recorded = clock::now();
  }
  void destroyEvent(void* handle, c10::DeviceIndex) const noexcept override { delete static_cast<event*>(handle); }
  void block(void*, const c10::Stream&) const override {}
  bool queryEvent(void*) const override { return true; }
  void synchronizeEvent(void*) const override {}
  double elapsedTime(void* begin, void* end, c10::DeviceIndex) const override {
    return elapsed_milliseconds(begin, end);
  }
};

}  // namespace

c10::DeviceIndex device_count() { return count; }
c10::DeviceIndex current_device() { return current; }
void set_current_device(c10::DeviceIndex device) { current = checked_device(device); }

c10::DeviceIndex checked_device(c10::DeviceIndex device) {
  if (device == -1) return current;
  TORCH_CHECK(device >= 0 && device < count, "There is no device xpu:", int(device), "; the number of xpu devices is ",
              count, ".");
  return device;
}

c10::Stream current_stream(c10::DeviceIndex device) {
  device = checked_device(device);
  return make_stream(device, size_t(device) < current_streams.size() ? current_streams[device] : 0);
}

void set_current_stream(c10::Stream stream) {
  TORCH_CHECK(stream.device_type() == c10::DeviceType::XPU, "A stream of ", stream.device(),
              " can't be current on xpu.");
  const c10::DeviceIndex device = checked_device(stream.device_index());
  TORCH_CHECK(stream.id() >= 0 && stream.id() < streams, "There is no stream ", stream.id(), " on xpu:", int(device),
              ".");
  if (current_streams.size() <= size_t(device)) current_streams.resize(device + 1);
  current_streams[device] = stream.id();
}

sycl::queue& queue_of(c10::Stream stream) {
  TORCH_CHECK(stream.id() >= 0 && stream.id() < streams, "There is no stream ", stream.id(), " on ", stream.device(),
              ".");
  auto& slot = (*devices)[checked_device(stream.device_index())].queues[stream.id()];
  sycl::queue* queue = slot.load(std::memory_order_acquire);
  if (queue) return *queue;
  std::lock_guard lock(queues_mutex);
  queue = slot.load(std::memory_order_relaxed);
  if (!queue) {
    queue = new sycl::queue(sycl::ext::orrery::make_queue(stream.device_index()));
    slot.store(queue, std::memory_order_release);
  }
  return *queue;
}

double elapsed_milliseconds(const void* begin, const void* end) {
  TORCH_CHECK(begin && end, "Both events must be recorded before calculating elapsed time.");
  const auto between = static_cast<const event*>(end)->recorded - static_cast<const event*>(begin)->recorded;
  return std::chrono::duration<double, std::milli>(between).count();
}

void register_guard(int number) {
  count = number;
  devices = new std::vector<device_state>(number);
  free_after_fork(queues_mutex);
  c10::impl::registerDeviceGuard(c10::DeviceType::XPU, new guard);
}

}  // namespace orrery::host
