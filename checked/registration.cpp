// torch.ops.orrery: schemas, and the function of each dispatch key. Linked into the module alone: a name is registered
// once in a process, and other modules in it may link the same operators.
#include <ATen/core/LegacyTypeDispatch.h>
#include <torch/library.h>

#include "checked/checks.h"
#include "checked/operators.h"

namespace orrery::checked {
namespace {

// The autograd function of operators without a gradient: raises where one is needed, which would be lost silently.
void without_gradient(const c10::OperatorHandle& op, c10::DispatchKeySet keys, torch::jit::Stack* stack) {
  const auto& arguments = op.schema().arguments();
  const auto given = torch::jit::last(*stack, arguments.size());
  std::vector<at::Tensor> written;
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (!given[i].isTensor()) continue;
    const at::Tensor& x = given[i].toTensor();
    TORCH_CHECK(!needs_gradient(x), op.schema().name(), " has no gradient, but ", arguments[i].name(),
                " requires one: call it under torch.no_grad() or with ", arguments[i].name(), ".detach()");
    if (const auto* alias = arguments[i].alias_info(); alias != nullptr && alias->isWrite()) written.push_back(x);
  }
  {
    const at::AutoDispatchBelowADInplaceOrView below;
    op.redispatchBoxed(keys & c10::after_ADInplaceOrView_keyset, stack);
  }
  for (const at::Tensor& x : written) x.unsafeGetTensorImpl()->bump_version();
}

}  // namespace

TORCH_LIBRARY(orrery, m) {
  m.def("linear(Tensor x, Tensor weight, int qtype, int rows, int columns, Tensor? bias=None) -> Tensor");
  m.def("dequantize(Tensor weight, int qtype, int rows, int columns, ScalarType? dtype=None) -> Tensor");
  m.def("stored_size(int qtype, int rows, int columns, bool any_device=True) -> (int, int)", stored_size);
  m.def("rms_norm(Tensor x, Tensor weight, float eps) -> Tensor");
  m.def("attention(Tensor query, Tensor key, Tensor value, Tensor? mask=None, bool causal=False) -> Tensor");
  m.def("quantize_key_value(Tensor key, Tensor value, Tensor(a!) key_out, Tensor(b!) value_out) -> ()");
  m.def("dequantize_key_value(Tensor key, Tensor value, Tensor(a!) key_out, Tensor(b!) value_out) -> ()");
  m.def("rotary_(Tensor(a!) query, Tensor(b!) key, Tensor positions, Tensor inv_freq, bool interleaved=False) -> ()");
}

// For every device: the operators' own checks refuse the wrong ones, with a sentence.
TORCH_LIBRARY_IMPL(orrery, CompositeExplicitAutograd, m) {
  m.impl("linear", linear);
  m.impl("dequantize", dequantize);
  m.impl("rms_norm", rms_norm);
  m.impl("attention", attention);
  m.impl("quantize_key_value", quantize_key_value);
  m.impl("dequantize_key_value", dequantize_key_value);
  m.impl("rotary_", rotary_);
}

TORCH_LIBRARY_IMPL(orrery, Meta, m) {
  m.impl("linear", meta::linear);
  m.impl("dequantize", meta::dequantize);
  m.impl("rms_norm", meta::rms_norm);
  m.impl("attention", meta::attention);
  m.impl("quantize_key_value", meta::quantize_key_value);
  m.impl("dequantize_key_value", meta::dequantize_key_value);
  m.impl("rotary_", meta::rotary_);
}

TORCH_LIBRARY_IMPL(orrery, Autograd, m) {
  m.impl("linear", linear_with_gradient);
  for (const char* name :
       {"dequantize", "rms_norm", "attention", "quantize_key_value", "dequantize_key_value", "rotary_"}) {
    m.impl(name, torch::CppFunction::makeFromBoxedFunction<&without_gradient>());
  }
}

}  // namespace orrery::checked
