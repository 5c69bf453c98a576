// Every operator without a kernel of its own runs PyTorch's CPU kernel on the same bytes.
#pragma once

#include <ATen/core/boxing/KernelFunction.h>
#include <ATen/core/stack.h>

namespace orrery::host {

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

// For operators that PyTorch differentiates through what they are made of, which the fallback hides: where a gradient
// is asked for, it runs on copies in CPU tensors, and the gradient takes the way back through them.
void differentiable_fallback(const c10::OperatorHandle& op, c10::DispatchKeySet keys, torch::jit::Stack* stack);

}  // namespace orrery::host
