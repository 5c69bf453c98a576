// The explicit-SIMD vector kernels of q8_0.
#include "batch/vector_kernel.h"

namespace orrery {

using q8_0_vectors = vector_format<weight_format::q8_0, formats::byte_reader<formats::q8_0>>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q8_0 : general_vector_kernel<q8_0_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q8_0_slim : slim_vector_kernel<q8_0_vectors, T, rows, GS> {};

constexpr vector_instances q8_0_instances =
    instances_of<"batch/int8", q8_0_vectors, vector_forward_kernel_q8_0, vector_forward_kernel_q8_0_slim>();

}  // namespace orrery
