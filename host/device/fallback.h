// Every operator without a kernel of its own runs PyTorch's CPU kernel on the same bytes.
#pragma once

#include <ATen/core/boxing/KernelFunction.h>
#include <ATen/core/stack.h>

namespace orrery::host {

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

// For operators that PyTorch differentiates through their parts, which the plain fallback hides. If a gradient is
// needed, the operator runs on CPU copies of its tensors, and the gradient flows back through the copies.
void differentiable_fallback(const c10::OperatorHandle& op, c10::DispatchKeySet keys, torch::jit::Stack* stack);

}  // namespace orrery::host
