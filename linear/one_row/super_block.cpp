#include "formats/super_block.h"

#include "linear/one_row/super_block_kernel.h"

namespace orrery {

template <typename T>
struct qlinear_xpu_kernel_q4_k : row_pair_kernel<formats::q4_k, T> {};
template <typename T>
struct qlinear_xpu_kernel_q5_k : row_pair_kernel<formats::q5_k, T> {};
template <typename T>
struct qlinear_xpu_kernel_q6_k : single_sub_group_kernel<formats::q6_k, T> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q4_k>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q5_k>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_q6_k>;

}  // namespace orrery
