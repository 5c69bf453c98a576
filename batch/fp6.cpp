// The explicit-SIMD vector kernels of fp6.
#include "batch/vector_kernel.h"

namespace orrery {

struct fp6_format : vector_format<weight_format::fp6, formats::fp6_reader> {
  static constexpr const char* unit = "batch/fp6";
  static constexpr bool slim_stages = true;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp6 : general_vector_kernel<fp6_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp6_slim : slim_vector_kernel<fp6_format, T, rows, GS> {};

constexpr vector_kernels fp6_vectors =
    vector_kernels_of<fp6_format, vector_forward_kernel_fp6, vector_forward_kernel_fp6_slim>();

}  // namespace orrery
