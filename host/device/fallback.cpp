#include "fallback.h"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/List.h>
#include <ATen/core/Tensor.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <c10/core/GradMode.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "allocator.h"
#include "fork.h"
#include "guard.h"
#include "hooks.h"
#include "wrap.h"

namespace orrery::host {
namespace {

using tensor_list = c10::List<at::Tensor>;

// Operators that take CPU tensors besides those of a device: indices and sequence lengths.
constexpr std::array<std::string_view, 9> mixed_devices = {"aten::index",
                                                           "aten::index_put",
                                                           "aten::index_put_",
                                                           "aten::_index_put_impl_",
                                                           "aten::_unsafe_index",
                                                           "aten::_unsafe_index_put",
                                                           "aten::_pack_padded_sequence",
                                                           "aten::_ctc_loss",
                                                           "aten::_ctc_loss_backward"};

bool takes_mixed_devices(const c10::OperatorHandle& op) {
  return std::ranges::find(mixed_devices, std::string_view(op.operator_name().name)) != mixed_devices.end();
}

template <typename Visit>
void for_each_tensor(const c10::IValue& value, Visit visit) {
  if (value.isTensor()) {
    visit(value.toTensor());
  } else if (value.isTensorList()) {
    for (const at::Tensor& tensor : value.toTensorList()) visit(tensor);
  } else if (value.isOptionalTensorList()) {
    for (const std::optional<at::Tensor>& tensor : value.toOptionalTensorList())
      if (tensor) visit(*tensor);
  }
}

// The value with each of its tensors converted.
template <typename Convert>
c10::IValue with_tensors(const c10::IValue& value, Convert convert) {
  if (value.isTensor()) return convert(value.toTensor());
  if (value.isTensorList()) {
    tensor_list converted;
    for (const at::Tensor& tensor : value.toTensorList()) converted.push_back(convert(tensor));
    return converted;
  }
  if (value.isOptionalTensorList()) {
    c10::impl::GenericList converted(c10::OptionalType::ofTensor());
    for (const c10::IValue& element : value.toListRef())
      converted.push_back(element.isTensor() ? c10::IValue(convert(element.toTensor())) : element);
    return converted;
  }
  return value;
}

// The device of a call: that of its tensors, else the one named in its arguments. Checks that all tensors are on it,
// apart from CPU scalars, which PyTorch accepts everywhere.
c10::Device device_of(const c10::OperatorHandle& op, c10::ArrayRef<c10::IValue> arguments) {
  std::optional<c10::Device> device, named;
  bool stray_cpu = false;
  for (const c10::IValue& argument : arguments) {
    if (argument.isDevice() && argument.toDevice().is_xpu()) named = argument.toDevice();
    for_each_tensor(argument, [&](const at::Tensor& tensor) {
      if (!tensor.defined()) return;
      if (tensor.is_xpu()) {
        TORCH_CHECK(!device || *device == tensor.device(),
                    "Expected all tensors to be on the same device, but found at least two devices, ", *device, " and ",
                    tensor.device(), "!");
        device = tensor.device();
      } else {
        stray_cpu |= tensor.is_cpu() && tensor.dim() > 0;
      }
    });
  }
  TORCH_CHECK(!device || !stray_cpu || takes_mixed_devices(op),
              "Expected all tensors to be on the same device, but found at least two devices, ", *device, " and cpu! (",
              op.operator_name(), ")");
  if (device) return *device;
  return {c10::DeviceType::XPU, checked_device(named ? named->index() : -1)};
}

bool is_generator(const c10::Argument& argument) {
  const auto* optional = argument.type()->castRaw<c10::OptionalType>();
  return optional && optional->getElementType()->kind() == c10::TypeKind::GeneratorType;
}

c10::IValue argument_to_cpu(twins& twin, c10::Device device, const c10::Argument& expected, const c10::IValue& value) {
  const auto convert = [&](const at::Tensor& tensor) {
    return tensor.defined() && tensor.is_xpu() ? twin.to_cpu(tensor) : tensor;
  };
  if (value.isDevice() && value.toDevice().is_xpu()) return c10::Device(c10::DeviceType::CPU);
  if (value.isGenerator()) return cpu_generator_of(value.toGenerator());
  if (value.isNone() && is_generator(expected)) return cpu_generator_of(default_generator(device.index()));
  return with_tensors(value, convert);
}

bool needs_gradient(c10::ArrayRef<c10::IValue> arguments) {
  bool needed = false;
  for (const c10::IValue& argument : arguments)
    for_each_tensor(argument, [&](const at::Tensor& tensor) { needed |= tensor.defined() && tensor.requires_grad(); });
  return needed && c10::GradMode::is_enabled();
}

}  // namespace

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  begin_operation();
  const auto& schema = op.schema();
  const size_t inputs = schema.arguments().size();
  const auto arguments = torch::jit::last(*stack, inputs);
  const c10::Device device = device_of(op, arguments);

  twins twin(device);
  for (size_t i = 0; i < inputs; ++i) {
    c10::IValue& value = torch::jit::peek(*stack, i, inputs);
    value = argument_to_cpu(twin, device, schema.arguments()[i], value);
  }
  {
    cpu_memory_on memory(device.index());
    op.redispatchBoxed(c10::DispatchKeySet(c10::DispatchKey::CPU), stack);
  }
  if (schema.is_mutable()) twin.sync();
  for (size_t i = 0, outputs = schema.returns().size(); i < outputs; ++i) {
    c10::IValue& value = torch::jit::peek(*stack, i, outputs);
    value = with_tensors(value, [&](const at::Tensor& tensor) { return twin.to_xpu(tensor); });
  }
}

void differentiable_fallback(const c10::OperatorHandle& op, c10::DispatchKeySet keys, torch::jit::Stack* stack) {
  const size_t inputs = op.schema().arguments().size(), outputs = op.schema().returns().size();
  const auto arguments = torch::jit::last(*stack, inputs);
  if (!needs_gradient(arguments)) {
    at::AutoDispatchBelowADInplaceOrView below;
    op.redispatchBoxed(keys & c10::after_autograd_keyset, stack);
    return;
  }
  const c10::Device device = device_of(op, arguments);
  const auto move_all = [&](size_t count, c10::DeviceType from, c10::Device to) {
    for (size_t i = 0; i < count; ++i) {
      c10::IValue& value = torch::jit::peek(*stack, i, count);
      value = with_tensors(value, [&](const at::Tensor& tensor) {
        return tensor.defined() && tensor.device().type() == from ? tensor.to(to) : tensor;
      });
    }
  };
  move_all(inputs, c10::DeviceType::XPU, c10::DeviceType::CPU);
  op.callBoxed(stack);
  move_all(outputs, c10::DeviceType::CPU, device);
}

}  // namespace orrery::host
