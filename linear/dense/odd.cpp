// Dense weights from codes of 5 and 3 bits: the same kernel for every device, in either sub-group size.
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q5_0 : dense_row_kernel<formats::q5_reader<formats::q5_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q5_1 : dense_row_kernel<formats::q5_reader<formats::q5_1>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_nf3_new : dense_row_kernel<formats::nf3_reader, T, SG, 1> {};

void launch_dense_q5_0(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_q5_0, qlinear_xpu_dequantize_kernel_q5_0>(type, a);
}

void launch_dense_q5_1(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_q5_1, qlinear_xpu_dequantize_kernel_q5_1>(type, a);
}

void launch_dense_nf3(c10::ScalarType type, const dense_launch& a) {
  launch_dense_rows<qlinear_xpu_dequantize_kernel_nf3_new, qlinear_xpu_dequantize_kernel_nf3_new>(type, a);
}

}  // namespace orrery
