// The explicit-SIMD vector kernels of fp8_e5m2.
#include "batch/vector_kernel.h"

namespace orrery {

struct fp8_e5m2_format : vector_format<weight_format::fp8_e5m2, formats::byte_reader<formats::fp8_e5m2>> {
  static constexpr const char* unit = "batch/fp8";
  static constexpr bool slim_stages = true;
};

template <typename T, int tail, int VS, int SBS>
struct vector_forward_kernel_fp8_e5m2 : general_vector_kernel<fp8_e5m2_format, T, tail> {};
template <typename T, int rows, int SBS, int GS>
struct vector_forward_kernel_fp8_e5m2_slim : slim_vector_kernel<fp8_e5m2_format, T, rows, GS> {};

constexpr vector_kernels fp8_e5m2_vectors =
    vector_kernels_of<fp8_e5m2_format, vector_forward_kernel_fp8_e5m2, vector_forward_kernel_fp8_e5m2_slim>();

}  // namespace orrery
