// The explicit-SIMD vector kernels of fp6.
#include "batch/vector_kernel.h"

namespace orrery {

using fp6_vectors = vector_format<weight_format::fp6, formats::fp6_reader>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp6 : general_vector_kernel<fp6_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp6_slim : slim_vector_kernel<fp6_vectors, T, rows, GS> {};

constexpr vector_instances fp6_instances =
    instances_of<"batch/fp6", fp6_vectors, vector_forward_kernel_fp6, vector_forward_kernel_fp6_slim>();

}  // namespace orrery
