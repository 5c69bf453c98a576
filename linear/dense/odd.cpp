// Dense weights from codes of 5 and 3 bits: the same kernels for every device, with either sub-group size.
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q5_0 : dense_row_kernel<formats::q5_reader<formats::q5_0>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_q5_1 : dense_row_kernel<formats::q5_reader<formats::q5_1>, T, SG, 1> {};
template <typename T, int SG>
struct qlinear_xpu_dequantize_kernel_nf3_new : dense_row_kernel<formats::nf3_reader, T, SG, 1> {};

template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q5_0, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q5_0, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q5_1, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q5_1, 32>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_nf3_new, 16>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_nf3_new, 32>;

}  // namespace orrery
