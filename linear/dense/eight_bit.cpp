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

void launch_dense_q8_0(c10::ScalarType type, const dense_launch& a) {
  if (a.tile) return launch_dense_narrow<qlinear_xpu_tile_dequantize_kernel_q8_0_1x1>(type, a);
  launch_dense_rows<qlinear_xpu_dequantize_kernel_q8_0_1x2, qlinear_xpu_dequantize_kernel_q8_0_1x1>(type, a);
}

void launch_dense_fp8_e4m3(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2, qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1>(type, a);
}

void launch_dense_fp8_e5m2(c10::ScalarType type, const dense_launch& a) {
  if (a.tile) return launch_dense_narrow<qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1>(type, a);
  launch_dense_rows<qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2, qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1>(type, a);
}

}  // namespace orrery
