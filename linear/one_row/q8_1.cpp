#include "formats/grid.h"
#include "formats/super_block.h"
#include "linear/one_row/dot_kernel.h"

namespace orrery {

template <typename T>
struct qlinear_xpu_kernel_q2_k_q8_1 : dot_kernel<formats::q2_k, T, dot_tree::in_type, 1> {};
template <typename T>
struct qlinear_xpu_kernel_iq2_xxs_q8_1 : dot_kernel<formats::iq2_xxs, T, dot_tree::in_type, 2> {};
template <typename T>
struct qlinear_xpu_kernel_iq1_s_q8_1 : dot_kernel<formats::iq1_s, T, dot_tree::in_float, 1> {};

template linear_launcher launch_kernel<qlinear_xpu_kernel_q2_k_q8_1>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_iq2_xxs_q8_1>;
template linear_launcher launch_kernel<qlinear_xpu_kernel_iq1_s_q8_1>;

}  // namespace orrery
