#include "formats/linear.h"
#include "linear/launchers.h"
#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_0_2x16_batch : pair_kernel<formats::q4_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_0_2x16_by_batch : pair_kernel<formats::q4_0, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q4_1_2x16_batch : pair_kernel<formats::q4_1, T, SG, WG> {};

void launch_batch_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_q4_0_2x16_batch>(odd_row::dropped, shape, type, args,
                                                   "qlinear_xpu_kernel_q4_0_2x16_batch");
}

void launch_by_batch_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_q4_0_2x16_by_batch>(odd_row::kept, shape, type, args,
                                                      "qlinear_xpu_kernel_q4_0_2x16_by_batch");
}

void launch_batch_q4_1(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_q4_1_2x16_batch>(odd_row::dropped, shape, type, args,
                                                   "qlinear_xpu_kernel_q4_1_2x16_batch");
}

}  // namespace orrery
