// Dense weights from two codes per byte: a work-item takes two neighbouring bytes or one.
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q4_0_1x4 : dense_row_kernel<formats::byte_reader<formats::q4_0>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q4_0_1x2 : dense_row_kernel<formats::byte_reader<formats::q4_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_tile_dequantize_kernel_q4_0_1x4 : dense_row_kernel<formats::byte_reader<formats::q4_0>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_tile_dequantize_kernel_q4_0_1x2 : dense_row_kernel<formats::byte_reader<formats::q4_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q4_1_1x4 : dense_row_kernel<formats::byte_reader<formats::q4_1>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q4_1_1x2 : dense_row_kernel<formats::byte_reader<formats::q4_1>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_nf4_1x4 : dense_row_kernel<formats::byte_reader<formats::nf4>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_nf4_1x2 : dense_row_kernel<formats::byte_reader<formats::nf4>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp4_1x4 : dense_row_kernel<formats::byte_reader<formats::fp4>, T, SG, 2> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_fp4_1x2 : dense_row_kernel<formats::byte_reader<formats::fp4>, T, SG, 1> {};

template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q4_0_1x4, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q4_0_1x2, 16>;
template linear_launcher launch_kernel<qlinear_xpu_tile_dequantize_kernel_q4_0_1x4, 32>;
template linear_launcher launch_kernel<qlinear_xpu_tile_dequantize_kernel_q4_0_1x2, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q4_1_1x4, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q4_1_1x2, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_nf4_1x4, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_nf4_1x2, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp4_1x4, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_fp4_1x2, 16>;

}  // namespace orrery
