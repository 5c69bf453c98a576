// What this runtime and PyTorch's OpenMP threads owe each other.
#pragma once

namespace sycl::detail {

// Makes OpenMP's threads sleep soon after a parallel region, for the rest of the process.
void bound_openmp_spinning();

}  // namespace sycl::detail
