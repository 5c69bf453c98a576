// Matrix-vector kernels for a few input rows: the single-row kernel on pairs of them, in two dimensions.
#pragma once

#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename Format, typename T, int SG, int WG>
using pair_kernel = row_kernel<Format, T, SG, WG, 2, 2>;

// What becomes of the last row of W if their number is odd.
enum class odd_row { dropped, kept };

template <typename Kernel, typename T, int WG>
void launch_pairs(odd_row last, const row_launch& a, const char* function) {
  const size_t groups = (a.output_size + (last == odd_row::kept ? 1 : 0)) / 2;
  launch(a.device, sycl::nd_range<2>({groups * WG, (a.n + 1) / 2}, {WG, 1}), {"linear_xpu_kernel", function},
         [&](sycl::handler& h) {
           Kernel kernel;
           static_cast<row_arguments<T>&>(kernel) = arguments_of<T>(a);
           kernel.partial = sycl::local_accessor<T, 2>(sycl::range<2>(2, 2 * WG), h);
           return kernel;
         });
}

// The instances of a family with sub-groups of 16 and 32.
template <template <typename, int, int> typename Kernel>
void launch_pairs(odd_row last, const row_shape& shape, c10::ScalarType type, const row_launch& a,
                  const char* function) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    if (shape.sub_group == 32) {
      launch_pairs<Kernel<T, 32, 64>, T, 64>(last, a, function);
    } else {
      launch_pairs<Kernel<T, 16, 32>, T, 32>(last, a, function);
    }
  });
}

}  // namespace orrery
