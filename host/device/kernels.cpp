#include "kernels.h"

#include <ATen/EmptyTensor.h>
#include <ATen/ops/_reshape_alias_native.h>
#include <ATen/ops/alias_native.h>
#include <ATen/ops/as_strided_native.h>
#include <ATen/ops/copy_ops.h>
#include <ATen/ops/resize_native.h>
#include <ATen/ops/set_native.h>
#include <ATen/ops/unfold_native.h>
#include <ATen/ops/view_as_complex_native.h>
#include <ATen/ops/view_as_real_native.h>
#include <ATen/ops/view_native.h>
#include <torch/library.h>

#include "allocator.h"
#include "fallback.h"
#include "fork.h"
#include "guard.h"
#include "wrap.h"

namespace orrery::host {
namespace {

constexpr c10::DispatchKeySet xpu_keys(c10::DispatchKey::XPU);

c10::Allocator& allocator_for(std::optional<c10::Device> device) {
  return device_allocator(checked_device(device ? device->index() : -1));
}

at::Tensor empty(at::IntArrayRef size, std::optional<at::ScalarType> dtype, std::optional<at::Layout> layout,
                 std::optional<at::Device> device, std::optional<bool> pin_memory,
                 std::optional<at::MemoryFormat> memory_format) {
  TORCH_CHECK(!pin_memory.value_or(false), "Only dense CPU tensors can be pinned");
  TORCH_CHECK(c10::layout_or_default(layout) == c10::kStrided, "xpu tensors are strided, ", *layout, " was asked for");
  return at::detail::empty_generic(size, &allocator_for(device), xpu_keys, c10::dtype_or_default(dtype), memory_format);
}

at::Tensor empty_strided(at::IntArrayRef size, at::IntArrayRef stride, std::optional<at::ScalarType> dtype,
                         std::optional<at::Layout>, std::optional<at::Device> device, std::optional<bool> pin_memory) {
  TORCH_CHECK(!pin_memory.value_or(false), "Only dense CPU tensors can be pinned");
  return at::detail::empty_strided_generic(size, stride, &allocator_for(device), xpu_keys,
                                           c10::dtype_or_default(dtype));
}

at::Tensor& copy_(at::Tensor& self, const at::Tensor& source, bool non_blocking) {
  begin_operation();
  at::Tensor to = as_cpu(self);
  at::_ops::copy_::redispatch(c10::DispatchKeySet(c10::DispatchKey::CPU), to, as_cpu(source), non_blocking);
  return self;
}

at::Tensor copy_from(const at::Tensor& source, const at::Tensor& to, bool non_blocking) {
  at::Tensor target = to;
  return copy_(target, source, non_blocking);
}

at::Tensor copy_from_and_resize(const at::Tensor& source, const at::Tensor& to) {
  at::Tensor target = to;
  target.resize_(source.sizes());
  return copy_(target, source, false);
}

at::Tensor& set_nothing_(at::Tensor& self) {
  c10::Allocator& allocator = allocator_for(self.device());
  return self.set_(c10::Storage(c10::Storage::use_byte_size_t(), 0, allocator.allocate(0), &allocator, true), 0, {0},
                   {});
}

// A launch is complete when it returns, so no stream still uses the memory.
void record_stream(at::Tensor&, at::Stream) {}

void own_kernels(torch::Library& m) {
  m.impl("empty.memory_format", &empty);
  m.impl("empty_strided", &empty_strided);
  m.impl("copy_", &copy_);
  m.impl("_copy_from", &copy_from);
  m.impl("_copy_from_and_resize", &copy_from_and_resize);
  m.impl("set_", &set_nothing_);
  m.impl("record_stream", &record_stream);
}

// Whether x += y is a sum of as many floats in the same order, few enough for one thread.
bool is_short_sum(const at::Tensor& x, const at::Tensor& y, const at::Scalar& alpha) {
  const auto is_plain = [](const at::Tensor& t) {
    return t.is_xpu() && t.scalar_type() == at::kFloat && t.is_contiguous() && !t.is_neg() && !t._is_zerotensor();
  };
  constexpr int64_t most = 32768;  // PyTorch shares longer ones among threads
  return is_plain(x) && is_plain(y) && x.device() == y.device() && x.sizes() == y.sizes() && x.numel() <= most &&
         alpha.equal(1) && (x.is_same(y) || !x.is_alias_of(y));
}

// A step of a model adds to its row twice in each layer, and the fallback takes 1 us.
void add_in_place(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const auto arguments = torch::jit::last(*stack, 3);
  if (!arguments[1].isTensor() ||
      !is_short_sum(arguments[0].toTensor(), arguments[1].toTensor(), arguments[2].toScalar())) {
    return fallback(op, stack);
  }
  begin_operation();
  const int64_t count = arguments[0].toTensor().numel();
  float* x = arguments[0].toTensor().mutable_data_ptr<float>();
  const float* y = arguments[1].toTensor().const_data_ptr<float>();
  for (int64_t i = 0; i < count; ++i) x[i] += y[i];
  torch::jit::drop(*stack, 2);
}

// Geometry only, the same for every device.
void shared_kernels(torch::Library& m) {
  m.impl("view", &at::native::view);
  m.impl("alias", &at::native::alias);
  m.impl("as_strided", &at::native::as_strided_tensorimpl);
  m.impl("_reshape_alias", &at::native::_reshape_alias);
  m.impl("unfold", &at::native::unfold);
  m.impl("view_as_real", &at::native::view_as_real);
  m.impl("view_as_complex", &at::native::view_as_complex);
  m.impl("resize_", &at::native::resize_);
  m.impl("set_.source_Storage", static_cast<at::Tensor& (*)(at::Tensor&, at::Storage)>(&at::native::set_));
  m.impl("set_.source_Storage_storage_offset", &at::native::set_storage_cpu_);
  m.impl("set_.source_Tensor", &at::native::set_tensor_);
}

// Composite operators that choose a kernel by device type themselves and have none for this one, or a slow one.
constexpr const char* composite_fallbacks[] = {
    "convolution",
    "convolution_backward",
    "native_layer_norm",
    "native_layer_norm_backward",
    "native_group_norm",
    "native_group_norm_backward",
    "addr",
};

// The same, for operators without a derivative formula of their own.
constexpr const char* composite_differentiable[] = {
    "scaled_dot_product_attention", "lstm.input", "lstm.data", "lstm_cell", "gru.input", "gru.data", "gru_cell",
};

}  // namespace

void register_kernels() {
  // Never destroyed: that would unregister the kernels.
  auto& all = *new torch::Library(torch::Library::IMPL, "_", c10::DispatchKey::XPU, __FILE__, __LINE__);
  all.fallback(torch::CppFunction::makeFromBoxedFunction<&fallback>());
  auto& aten = *new torch::Library(torch::Library::IMPL, "aten", c10::DispatchKey::XPU, __FILE__, __LINE__);
  own_kernels(aten);
  shared_kernels(aten);
  aten.impl("add_.Tensor", torch::CppFunction::makeFromBoxedFunction<&add_in_place>());
  for (const char* name : composite_fallbacks) aten.impl(name, torch::CppFunction::makeFromBoxedFunction<&fallback>());

  auto& autograd = *new torch::Library(torch::Library::IMPL, "aten", c10::DispatchKey::AutogradXPU, __FILE__, __LINE__);
  for (const char* name : composite_differentiable) {
    aten.impl(name, torch::CppFunction::makeFromBoxedFunction<&fallback>());
    autograd.impl(name, torch::CppFunction::makeFromBoxedFunction<&differentiable_fallback>());
  }
}

}  // namespace orrery::host
