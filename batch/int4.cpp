// The explicit-SIMD vector kernels of q4_0 and q4_1.
#include "batch/vector_kernel.h"

namespace orrery {

using q4_0_vectors = vector_format<weight_format::q4_0, formats::byte_reader<formats::q4_0>>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q4_0 : general_vector_kernel<q4_0_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q4_0_slim : slim_vector_kernel<q4_0_vectors, T, rows, GS> {};

constexpr vector_instances q4_0_instances =
    instances_of<"batch/int4", q4_0_vectors, vector_forward_kernel_q4_0, vector_forward_kernel_q4_0_slim>();

using q4_1_vectors = vector_format<weight_format::q4_1, formats::byte_reader<formats::q4_1>>;

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q4_1 : general_vector_kernel<q4_1_vectors, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q4_1_slim : slim_vector_kernel<q4_1_vectors, T, rows, GS> {};

constexpr vector_instances q4_1_instances =
    instances_of<"batch/int4", q4_1_vectors, vector_forward_kernel_q4_1, vector_forward_kernel_q4_1_slim>();

}  // namespace orrery
