// Which accelerator PyTorch takes for its own: it serves one in a process.
#pragma once

namespace orrery::host {

// Makes room for xpu in a PyTorch that was built for CUDA. Where a CUDA GPU may be present it does nothing.
void put_cuda_aside();

// Whether nothing else is PyTorch's accelerator.
bool xpu_is_accelerator();

// Returns when PyTorch's threads for backward passes have let go of the passes before. They take the interpreter lock
// for it, and one that asks for the lock while the interpreter ends would end the process with an abort.
void settle_autograd();

}  // namespace orrery::host
