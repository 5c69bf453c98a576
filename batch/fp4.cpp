// The explicit-SIMD vector kernels of fp4.
#include "batch/vector_kernel.h"

namespace orrery {

struct fp4_format : vector_format<weight_format::fp4, formats::byte_reader<formats::fp4>> {
  static constexpr const char* unit = "batch/fp4";
  static constexpr bool slim_stages = true;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp4 : general_vector_kernel<fp4_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp4_slim : slim_vector_kernel<fp4_format, T, rows, GS> {};

constexpr vector_kernels fp4_vectors =
    vector_kernels_of<fp4_format, vector_forward_kernel_fp4, vector_forward_kernel_fp4_slim>();

}  // namespace orrery
