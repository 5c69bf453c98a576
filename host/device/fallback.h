// Every operator without a kernel of its own runs PyTorch's CPU kernel on the same bytes.
#pragma once

#include <ATen/core/boxing/KernelFunction.h>
#include <ATen/core/stack.h>

namespace orrery::host {

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

}  // namespace orrery::host
