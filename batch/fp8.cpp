// The explicit-SIMD vector kernels of fp8_e5m2.
#include "batch/vector_kernel.h"

namespace orrery {

using fp8_e5m2_vectors = vector_format<weight_format::fp8_e5m2, formats::byte_reader<formats::fp8_e5m2>>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp8_e5m2 : general_vector_kernel<fp8_e5m2_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp8_e5m2_slim : slim_vector_kernel<fp8_e5m2_vectors, T, rows, GS> {};

constexpr vector_instances fp8_e5m2_instances =
    instances_of<"batch/fp8", fp8_e5m2_vectors, vector_forward_kernel_fp8_e5m2, vector_forward_kernel_fp8_e5m2_slim>();

}  // namespace orrery
