#include "allocator.h"

#include <c10/core/CPUAllocator.h>

#include <array>
#include <limits>

#include "guard.h"
#include "pool.h"

namespace orrery::host {
namespace {

// Never destroyed: tensors may outlive every static object.
pool& memory() {
  static pool& shared = *new pool;
  return shared;
}

void free_block(void* taken) { memory().give_back(static_cast<block*>(taken)); }
void free_data(void* data) { memory().give_back(memory().find(data)); }

block* take(size_t bytes, c10::DeviceIndex on) {
  block* taken = memory().take(bytes, on);
  TORCH_CHECK_WITH(OutOfMemoryError, taken, "xpu:", int(on), " is out of host memory: ", bytes,
                   " bytes were asked for, ", memory().room().first, " are available.");
  return taken;
}

// Serves one device, or with index -1 the current one.
class xpu_allocator final : public c10::DeviceAllocator {
 public:
  explicit xpu_allocator(c10::DeviceIndex device) : device_(device) {}

  c10::DataPtr allocate(size_t bytes) override {
    const c10::DeviceIndex on = device_ < 0 ? current_device() : device_;
    const c10::Device seen_as(c10::DeviceType::XPU, on);
    if (bytes == 0) return {nullptr, seen_as};
    block* taken = take(bytes, on);
    return {taken->data, taken, &free_block, seen_as};  // the block, so that it need not be looked up
  }
  bool is_simple_data_ptr(const c10::DataPtr& data) const override { return data.get_deleter() == &free_block; }
  void copy_data(void* to, const void* from, size_t count) const override { default_copy_data(to, from, count); }

  bool initialized() override { return true; }
  void emptyCache(c10::MempoolId_t) override { memory().release_free(); }
  // A launch is complete when it returns, so no stream still uses the memory.
  void recordStream(const c10::DataPtr&, c10::Stream) override {}
  c10::CachingDeviceAllocator::DeviceStats getDeviceStats(c10::DeviceIndex device) override {
    return memory().stats(checked_device(device));
  }
  void resetAccumulatedStats(c10::DeviceIndex device) override { memory().reset_accumulated(checked_device(device)); }
  void resetPeakStats(c10::DeviceIndex device) override { memory().reset_peak(checked_device(device)); }
  std::pair<size_t, size_t> getMemoryInfo(c10::DeviceIndex) override { return memory().room(); }

 private:
  c10::DeviceIndex device_;
};

thread_local c10::DeviceIndex cpu_memory_device = -1;

c10::Allocator* cpu_own = nullptr;  // PyTorch's own

// Raw memory allocated during a call of the device may be freed outside of one.
void free_raw(void* data) {
  if (!data) return;
  if (block* taken = memory().find(data)) {
    memory().give_back(taken);
  } else {
    cpu_own->raw_deallocate(data);
  }
}

class cpu_front final : public c10::Allocator {
 public:
  c10::DataPtr allocate(size_t bytes) override {
    if (cpu_memory_device < 0) return cpu_own->allocate(bytes);
    if (bytes == 0) return {nullptr, c10::DeviceType::CPU};
    void* data = take(bytes, cpu_memory_device)->data;
    return {data, data, &free_data, c10::DeviceType::CPU};  // raw_allocate takes no other context
  }
  c10::DeleterFnPtr raw_deleter() const override { return &free_raw; }
  void copy_data(void* to, const void* from, size_t count) const override { cpu_own->copy_data(to, from, count); }
};

}  // namespace

c10::Allocator& device_allocator(c10::DeviceIndex device) {
  static auto& all = *new auto([] {
    std::array<c10::Allocator*, std::numeric_limits<c10::DeviceIndex>::max() + 1> made;
    for (size_t i = 0; i < made.size(); ++i) made[i] = new xpu_allocator(c10::DeviceIndex(i));
    return made;
  }());
  return *all[device];
}

void register_allocators() {
  memory();  // registers its lock before the first fork
  c10::SetAllocator(c10::DeviceType::XPU, new xpu_allocator(-1));
  cpu_own = c10::GetAllocator(c10::DeviceType::CPU);
  c10::SetAllocator(c10::DeviceType::CPU, new cpu_front, std::numeric_limits<uint8_t>::max());
}

bool has_slack(const c10::DataPtr& data) {
  return !data || data.get_deleter() == &free_block || data.get_deleter() == &free_data;
}

cpu_memory_on::cpu_memory_on(c10::DeviceIndex device) : previous_(cpu_memory_device) { cpu_memory_device = device; }
cpu_memory_on::~cpu_memory_on() { cpu_memory_device = previous_; }

}  // namespace orrery::host
