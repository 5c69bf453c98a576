// The explicit-SIMD vector kernels of q4_0 and q4_1.
#include "batch/vector_kernel.h"

namespace orrery {

struct q4_0_format : vector_format<weight_format::q4_0, formats::byte_reader<formats::q4_0>> {
  static constexpr const char* unit = "batch/int4";
  static constexpr bool slim_stages = false;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q4_0 : general_vector_kernel<q4_0_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q4_0_slim : slim_vector_kernel<q4_0_format, T, rows, GS> {};

constexpr vector_kernels q4_0_vectors =
    vector_kernels_of<q4_0_format, vector_forward_kernel_q4_0, vector_forward_kernel_q4_0_slim>();

struct q4_1_format : vector_format<weight_format::q4_1, formats::byte_reader<formats::q4_1>> {
  static constexpr const char* unit = "batch/int4";
  static constexpr bool slim_stages = false;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q4_1 : general_vector_kernel<q4_1_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q4_1_slim : slim_vector_kernel<q4_1_format, T, rows, GS> {};

constexpr vector_kernels q4_1_vectors =
    vector_kernels_of<q4_1_format, vector_forward_kernel_q4_1, vector_forward_kernel_q4_1_slim>();

}  // namespace orrery
