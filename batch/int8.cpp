// The explicit-SIMD vector kernels of q8_0.
#include "batch/vector_kernel.h"

namespace orrery {

struct q8_0_format : vector_format<weight_format::q8_0, formats::byte_reader<formats::q8_0>> {
  static constexpr const char* unit = "batch/int8";
  static constexpr bool slim_stages = true;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_q8_0 : general_vector_kernel<q8_0_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_q8_0_slim : slim_vector_kernel<q8_0_format, T, rows, GS> {};

constexpr vector_kernels q8_0_vectors =
    vector_kernels_of<q8_0_format, vector_forward_kernel_q8_0, vector_forward_kernel_q8_0_slim>();

}  // namespace orrery
