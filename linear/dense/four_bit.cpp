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

void launch_dense_q4_0(c10::ScalarType type, const dense_launch& a) {
  if (a.tile)
    return launch_dense_rows<qlinear_xpu_tile_dequantize_kernel_q4_0_1x4, qlinear_xpu_tile_dequantize_kernel_q4_0_1x2>(
        type, a);
  launch_dense_rows<qlinear_xpu_dequantize_kernel_q4_0_1x4, qlinear_xpu_dequantize_kernel_q4_0_1x2>(type, a);
}

void launch_dense_q4_1(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_q4_1_1x4, qlinear_xpu_dequantize_kernel_q4_1_1x2>(type, a);
}

void launch_dense_nf4(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_nf4_1x4, qlinear_xpu_dequantize_kernel_nf4_1x2>(type, a);
}

void launch_dense_fp4(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_fp4_1x4, qlinear_xpu_dequantize_kernel_fp4_1x2>(type, a);
}

}  // namespace orrery
