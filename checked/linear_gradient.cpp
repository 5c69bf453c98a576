// The gradient of linear: the weight is constant, x's gradient is the result's times the dequantized weight.
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/ops/matmul.h>
#include <torch/csrc/autograd/custom_function.h>

#include "checked/checks.h"
#include "checked/operators.h"

namespace orrery::checked {
namespace {

using at::Tensor;
using std::optional;
using torch::autograd::AutogradContext;
using torch::autograd::variable_list;

// The operators through PyTorch's dispatcher, below autograd, so that compilers and fake tensors see them.
template <auto Function>
const auto& operator_of(const char* name) {
  using Signature = std::remove_pointer_t<decltype(Function)>;
  static const auto found = c10::Dispatcher::singleton().findSchemaOrThrow(name, "").template typed<Signature>();
  return found;
}

Tensor call_linear(const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                   const optional<Tensor>& bias) {
  const at::AutoDispatchBelowADInplaceOrView below;
  return operator_of<&linear>("orrery::linear").call(x, weight, qtype, rows, columns, bias);
}

Tensor call_dequantize(const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns, at::ScalarType type) {
  return operator_of<&dequantize>("orrery::dequantize").call(weight, qtype, rows, columns, type);
}

struct linear_function : torch::autograd::Function<linear_function> {
  static Tensor forward(AutogradContext* context, const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows,
                        int64_t columns, const optional<Tensor>& bias) {
    context->save_for_backward({weight});
    context->saved_data["matrix"] = std::vector<int64_t>{qtype, rows, columns};
    context->saved_data["type"] = x.scalar_type();
    context->saved_data["bias"] = bias.has_value();
    return call_linear(x, weight, qtype, rows, columns, bias);
  }

  static variable_list backward(AutogradContext* context, const variable_list& gradients) {
    const Tensor& gradient = gradients[0];
    const auto matrix = context->saved_data["matrix"].toIntVector();
    const int64_t rows = matrix[1];
    variable_list result(6);  // of forward's arguments
    if (context->needs_input_grad(0)) {
      const Tensor dense = call_dequantize(context->get_saved_variables()[0], matrix[0], rows, matrix[2],
                                           context->saved_data["type"].toScalarType());
      result[0] = gradient.matmul(dense);
    }
    // needs_input_grad counts forward's tensors only, `result` all its arguments.
    if (context->saved_data["bias"].toBool() && context->needs_input_grad(2))
      result[5] = gradient.reshape({-1, rows}).sum(0);
    return result;
  }
};

}  // namespace

Tensor linear_with_gradient(const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                            const optional<Tensor>& bias) {
  const bool needed = needs_gradient(x) || (bias && needs_gradient(*bias));
  if (needed) return linear_function::apply(x, weight, qtype, rows, columns, bias);
  return call_linear(x, weight, qtype, rows, columns, bias);
}

}  // namespace orrery::checked
