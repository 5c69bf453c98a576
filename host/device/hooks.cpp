#include "hooks.h"

#include <ATen/CPUGeneratorImpl.h>
#include <ATen/detail/XPUHooksInterface.h>
#include <c10/core/CPUAllocator.h>

#include <vector>

#include "accelerator.h"
#include "guard.h"

namespace orrery::host {
namespace {

// Kernels run on the CPU and need a CPU generator, so this one wraps one and only adds its device.
class xpu_generator final : public c10::GeneratorImpl {
 public:
  xpu_generator(c10::DeviceIndex device, at::Generator cpu)
      : GeneratorImpl({c10::DeviceType::XPU, device}, c10::DispatchKeySet(c10::DispatchKey::XPU)),
        cpu(std::move(cpu)) {}

  void set_current_seed(uint64_t seed) override { cpu.set_current_seed(seed); }
  void set_offset(uint64_t offset) override { cpu.set_offset(offset); }
  uint64_t get_offset() const override { return cpu.get_offset(); }
  uint64_t current_seed() const override { return cpu.current_seed(); }
  uint64_t seed() override { return at::Generator(cpu).seed(); }
  void set_state(const c10::TensorImpl& state) override { cpu.unsafeGetGeneratorImpl()->set_state(state); }
  c10::intrusive_ptr<c10::TensorImpl> get_state() const override { return cpu.unsafeGetGeneratorImpl()->get_state(); }

  at::Generator cpu;

 private:
  xpu_generator* clone_impl() const override { return new xpu_generator(device().index(), cpu.clone()); }
};

at::Generator make_generator(c10::DeviceIndex device) {
  return at::make_generator<xpu_generator>(device, at::detail::createCPUGenerator());
}

class hooks final : public at::XPUHooksInterface {
 public:
  void init() const override {}
  // PyTorch raises an error if two accelerators are built.
  bool isBuilt() const override { return xpu_is_accelerator(); }
  bool isAvailable() const override { return true; }
  bool hasXPU() const override { return true; }
  bool hasPrimaryContext(c10::DeviceIndex device) const override { return device >= 0 && device < device_count(); }
  std::string showConfig() const override { return "xpu in host memory\n"; }
  int32_t getGlobalIdxFromDevice(const c10::Device& device) const override { return checked_device(device.index()); }
  c10::DeviceIndex getNumGPUs() const override { return device_count(); }
  c10::DeviceIndex deviceCount() const override { return device_count(); }
  c10::DeviceIndex current_device() const override { return host::current_device(); }
  c10::DeviceIndex getCurrentDevice() const override { return host::current_device(); }
  void setCurrentDevice(c10::DeviceIndex device) const override { set_current_device(device); }
  c10::DeviceIndex exchangeDevice(c10::DeviceIndex device) const override {
    const c10::DeviceIndex previous = host::current_device();
    set_current_device(device);
    return previous;
  }
  c10::DeviceIndex maybeExchangeDevice(c10::DeviceIndex device) const override {
    return device < 0 ? host::current_device() : exchangeDevice(device);
  }
  void deviceSynchronize(c10::DeviceIndex device) const override { checked_device(device); }
  const at::Generator& getDefaultGenerator(c10::DeviceIndex device) const override { return default_generator(device); }
  at::Generator getNewGenerator(c10::DeviceIndex device) const override {
    return make_generator(checked_device(device));
  }
  // An address in host memory does not tell its device.
  c10::Device getDeviceFromPtr(void*) const override { return {c10::DeviceType::XPU, host::current_device()}; }
  // The device can read all memory, pinned or not.
  c10::Allocator* getPinnedMemoryAllocator() const override { return c10::GetCPUAllocator(); }
};

}  // namespace

const at::Generator& default_generator(c10::DeviceIndex device) {
  static auto& all = *new auto([] {
    std::vector<at::Generator> made;
    for (c10::DeviceIndex i = 0; i < device_count(); ++i) made.push_back(make_generator(i));
    return made;
  }());
  return all[checked_device(device)];
}

const at::Generator& cpu_generator_of(const at::Generator& generator) {
  TORCH_CHECK(generator.device().is_xpu(), "Expected a 'xpu' device type for generator but found '",
              generator.device().type(), "'");
  return static_cast<xpu_generator*>(generator.unsafeGetGeneratorImpl())->cpu;
}

void register_hooks() {
  at::XPUHooksRegistry()->Register("XPUHooks", [] { return std::make_unique<hooks>(); });
}

}  // namespace orrery::host
