#include "formats/codebook.h"

#include "linear/launchers.h"
#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_nf4_2x16_batch : pair_kernel<formats::nf4, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp4_2x16_batch : pair_kernel<formats::fp4, T, SG, WG> {};

void launch_batch_nf4(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_nf4_2x16_batch>(odd_row::dropped, shape, type, args,
                                                  "qlinear_xpu_kernel_nf4_2x16_batch");
}

void launch_batch_fp4(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_fp4_2x16_batch>(odd_row::kept, shape, type, args,
                                                  "qlinear_xpu_kernel_fp4_2x16_batch");
}

}  // namespace orrery
