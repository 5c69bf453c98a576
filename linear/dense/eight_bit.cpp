// Dense weights from one code per byte: a work-item takes two neighbouring bytes or one.
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q8_0_1x2 : dense_row_kernel<formats::byte_reader<formats::q8_0>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q8_0_1x1 : dense_row_kernel<formats::byte_reader<formats::q8_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_tile_dequantize_kernel_q8_0_1x1 : dense_row_kernel<formats::byte_reader<formats::q8_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2
    : dense_row_kernel<formats::byte_reader<formats::fp8_e4m3>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1
    : dense_row_kernel<formats::byte_reader<formats::fp8_e4m3>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2
    : dense_row_kernel<formats::byte_reader<formats::fp8_e5m2>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1
    : dense_row_kernel<formats::byte_reader<formats::fp8_e5m2>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1
    : dense_row_kernel<formats::byte_reader<formats::fp8_e5m2>, T, SG, 1> {};

template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q8_0_1x2, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q8_0_1x1, 16>;
template linear_launcher launch_kernel<qlinear_xpu_tile_dequantize_kernel_q8_0_1x1, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1, 16>;
template linear_launcher launch_kernel<qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1, 16>;

}  // namespace orrery
