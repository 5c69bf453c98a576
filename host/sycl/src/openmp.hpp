// Keeps PyTorch's OpenMP threads from taking processors away from the workers.
#pragma once

namespace sycl::detail {

// Makes OpenMP's threads sleep soon after a parallel region, for the rest of the process.
void bound_openmp_spinning();

}  // namespace sycl::detail
