// Which accelerator PyTorch uses: it supports one per process.
#pragma once

namespace orrery::host {

// Lets xpu be the accelerator of a PyTorch that was built for CUDA. Does nothing where a CUDA GPU may be present.
void put_cuda_aside();

// Whether no other device is PyTorch's accelerator.
bool xpu_is_accelerator();

// Returns when PyTorch's autograd threads have released what earlier backward passes used. They take the interpreter
// lock for that, and a thread that asks for the lock while the interpreter ends aborts the process.
void settle_autograd();

}  // namespace orrery::host
