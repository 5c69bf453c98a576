// The explicit-SIMD vector kernels of fp4.
#include "batch/vector_kernel.h"

namespace orrery {

using fp4_vectors = vector_format<weight_format::fp4, formats::byte_reader<formats::fp4>>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp4 : general_vector_kernel<fp4_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp4_slim : slim_vector_kernel<fp4_vectors, T, rows, GS> {};

constexpr vector_instances fp4_instances =
    instances_of<"batch/fp4", fp4_vectors, vector_forward_kernel_fp4, vector_forward_kernel_fp4_slim>();

}  // namespace orrery
