#include "accelerator.h"

#include <ATen/core/Tensor.h>
#include <ATen/detail/CUDAHooksInterface.h>
#include <ATen/ops/clone.h>
#include <ATen/ops/ones.h>
#include <dlfcn.h>

#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>
#include <thread>

#include "guard.h"

namespace orrery::host {
namespace {

// PyTorch's own hooks, never destroyed.
const at::CUDAHooksInterface* own = nullptr;

// Answers for CUDA on a machine without a CUDA GPU: it is no accelerator; all else is as PyTorch's own hooks say. What
// is not overridden gives the same answers in the base class, or the errors for missing devices.
class absent_cuda final : public at::CUDAHooksInterface {
 public:
  bool isBuilt() const override { return false; }
  bool hasPrimaryContext(c10::DeviceIndex) const override { return false; }

  // Raises the error that says that there is no driver or no GPU.
  void init() const override { own->init(); }
  const at::Generator& getDefaultGenerator(c10::DeviceIndex device) const override {
    return own->getDefaultGenerator(device);
  }
  at::Generator getNewGenerator(c10::DeviceIndex device) const override { return own->getNewGenerator(device); }
  at::Device getDeviceFromPtr(void* data) const override { return own->getDeviceFromPtr(data); }
  at::Allocator* getPinnedMemoryAllocator() const override { return own->getPinnedMemoryAllocator(); }
  at::Allocator* getCUDADeviceAllocator() const override { return own->getCUDADeviceAllocator(); }
  const at::cuda::NVRTC& nvrtc() const override { return own->nvrtc(); }
  void deviceSynchronize(c10::DeviceIndex device) const override { own->deviceSynchronize(device); }

  // What PyTorch was built with.
  bool hasCUDART() const override { return own->hasCUDART(); }
  bool hasMAGMA() const override { return own->hasMAGMA(); }
  bool hasCuDNN() const override { return own->hasCuDNN(); }
  bool hasCuSOLVER() const override { return own->hasCuSOLVER(); }
  bool hasCuBLASLt() const override { return own->hasCuBLASLt(); }
  bool hasCKSDPA() const override { return own->hasCKSDPA(); }
  bool hasCKGEMM() const override { return own->hasCKGEMM(); }
  bool compiledWithCuDNN() const override { return own->compiledWithCuDNN(); }
  long versionCuDNN() const override { return own->versionCuDNN(); }
  long versionRuntimeCuDNN() const override { return own->versionRuntimeCuDNN(); }
  long versionCuDNNFrontend() const override { return own->versionCuDNNFrontend(); }
  long versionCUDART() const override { return own->versionCUDART(); }
  std::string showConfig() const override { return own->showConfig(); }
  double batchnormMinEpsilonCuDNN() const override { return own->batchnormMinEpsilonCuDNN(); }
  int64_t cuFFTGetPlanCacheMaxSize(c10::DeviceIndex device) const override {
    return own->cuFFTGetPlanCacheMaxSize(device);
  }
  void cuFFTSetPlanCacheMaxSize(c10::DeviceIndex device, int64_t size) const override {
    own->cuFFTSetPlanCacheMaxSize(device, size);
  }
  int64_t cuFFTGetPlanCacheSize(c10::DeviceIndex device) const override { return own->cuFFTGetPlanCacheSize(device); }
  void cuFFTClearPlanCache(c10::DeviceIndex device) const override { own->cuFFTClearPlanCache(device); }
};

// Counting the GPUs would start the CUDA runtime, and no child forked later could use it. So only two signs count: the
// driver's library is missing, or the environment hides all GPUs.
bool cuda_gpu_possible() {
  if (const char* visible = std::getenv("CUDA_VISIBLE_DEVICES")) {
    if (std::string_view(visible).empty() || std::string_view(visible) == "-1") return false;
  }
  void* driver = dlopen("libcuda.so.1", RTLD_LAZY | RTLD_LOCAL);
  if (driver) dlclose(driver);
  return driver;
}

}  // namespace

void put_cuda_aside() {
  auto& registry = *at::CUDAHooksRegistry();
  if (!registry.Has("CUDAHooks") || cuda_gpu_possible()) return;
  auto hooks = registry.Create("CUDAHooks", {});
  if (hooks->hasROCM()) return;
  own = hooks.release();
  // PyTorch fetched its hooks while it was imported and keeps that object, so it is too late to register others. The
  // object has no data, so another implementation can be constructed in its place.
  static_assert(sizeof(absent_cuda) == sizeof(at::CUDAHooksInterface));
  new (const_cast<at::CUDAHooksInterface*>(&at::detail::getCUDAHooks())) absent_cuda;
}

void settle_autograd() {
  // An autograd thread runs one pass after another, so the earlier ones are over when a new one ends. It is started
  // from a new thread, whose thread-local state holds no Python object that would have to be released in turn.
  std::thread([] {
    try {
      for (c10::DeviceIndex i = 0; i < device_count(); ++i) {
        const auto on = at::TensorOptions().device(c10::DeviceType::XPU, i);
        at::ones({}, on).requires_grad_().clone().backward();
      }
    } catch (const std::exception&) {
      // The process is ending anyway.
    }
  }).join();
}

bool xpu_is_accelerator() { return !at::detail::getCUDAHooks().isBuilt(); }

}  // namespace orrery::host
