#include "formats/linear.h"
#include "linear/launchers.h"
#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename T, int SG, int WG, int R>
struct qlinear_xpu_kernel_q4_0_2x16 : row_kernel<formats::q4_0, T, SG, WG, R> {};

void launch_row_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& a) {
  constexpr const char* name = "qlinear_xpu_kernel_q4_0_2x16";
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    if (shape.sub_group == 32) {
      launch_row_kernel<qlinear_xpu_kernel_q4_0_2x16<T, 32, 64, 2>, T>(a, 64, 2, name);
    } else if (shape.rows == 8) {
      launch_row_kernel<qlinear_xpu_kernel_q4_0_2x16<T, 16, 32, 8>, T>(a, 32, 8, name);
    } else {
      launch_row_kernel<qlinear_xpu_kernel_q4_0_2x16<T, 16, 32, 2>, T>(a, 32, 2, name);
    }
  });
}

}  // namespace orrery
