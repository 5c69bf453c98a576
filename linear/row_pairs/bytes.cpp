#include "formats/codebook.h"
#include "linear/launchers.h"
#include "linear/row_pairs/pair_kernel.h"

namespace orrery {

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_fp8_e5m2_2x8_batch : pair_kernel<formats::fp8_e5m2, T, SG, WG> {};

template <typename T, int SG, int WG>
struct qlinear_xpu_kernel_q8_0_2x8_batch : pair_kernel<formats::q8_0, T, SG, WG> {};

void launch_batch_fp8_e5m2(const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  launch_pairs<qlinear_xpu_kernel_fp8_e5m2_2x8_batch>(odd_row::kept, shape, type, args,
                                                      "qlinear_xpu_kernel_fp8_e5m2_2x8_batch");
}

// One instance for every device class.
void launch_batch_q8_0(const row_shape&, c10::ScalarType type, const row_launch& args) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    launch_pairs<qlinear_xpu_kernel_q8_0_2x8_batch<T, 16, 32>, T, 32>(odd_row::kept, args,
                                                                      "qlinear_xpu_kernel_q8_0_2x8_batch");
  });
}

}  // namespace orrery
