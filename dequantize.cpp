// Dense weights of half and float by explicit-SIMD kernels, a few whole blocks per work-item. The kernel is in
// linear/dense/dense_kernel.h.
#include <string>
#include <string_view>

#include "includes/assertion.h"
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SBS>
struct dequantize_q4_0_kernel : dense_blocks_kernel<weight_format::q4_0, formats::byte_reader<formats::q4_0>, T, SBS> {
};
template <typename T, int SBS>
struct dequantize_q4_1_kernel : dense_blocks_kernel<weight_format::q4_1, formats::byte_reader<formats::q4_1>, T, SBS> {
};
template <typename T, int SBS>
struct dequantize_q8_0_kernel : dense_blocks_kernel<weight_format::q8_0, formats::byte_reader<formats::q8_0>, T, SBS> {
};
template <typename T, int SBS>
struct dequantize_fp4_kernel : dense_blocks_kernel<weight_format::fp4, formats::byte_reader<formats::fp4>, T, SBS> {};
template <typename T, int SBS>
struct dequantize_fp6_kernel : dense_blocks_kernel<weight_format::fp6, formats::fp6_reader, T, SBS> {};
template <typename T, int SBS>
struct dequantize_fp8_e5m2_kernel
    : dense_blocks_kernel<weight_format::fp8_e5m2, formats::byte_reader<formats::fp8_e5m2>, T, SBS> {};

template <template <typename, int> typename Kernel, int SBS>
void launch_block_kernel(const linear_decision& way, const linear_operands& on) {
  with_half_or_float(on.type, [&](auto t) {
    const uint64_t nb = on.output_size * on.state_size / 64;
    ORRERY_ASSERT(nb % SBS == 0);
    static const std::string function(way.kernel, std::string_view(way.kernel).rfind("_kernel"));
    launch_bound<Kernel<decltype(t), SBS>>(way, on, {"dequantize", function.c_str()});
  });
}

template linear_launcher launch_block_kernel<dequantize_q4_0_kernel, 8>;
template linear_launcher launch_block_kernel<dequantize_q4_1_kernel, 8>;
template linear_launcher launch_block_kernel<dequantize_q8_0_kernel, 4>;
template linear_launcher launch_block_kernel<dequantize_fp4_kernel, 8>;
template linear_launcher launch_block_kernel<dequantize_fp6_kernel, 8>;
template linear_launcher launch_block_kernel<dequantize_fp8_e5m2_kernel, 4>;

}  // namespace orrery
