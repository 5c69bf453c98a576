#include "formats/grid.h"
#include "formats/super_block.h"
#include "linear/launchers.h"
#include "linear/one_row/dot_kernel.h"
#include "linear/one_row/quantize_q8_1.h"

namespace orrery {

template <typename T>
struct qlinear_xpu_kernel_q2_k_q8_1 : dot_kernel<formats::q2_k, T, dot_tree::in_type, 1> {};
template <typename T>
struct qlinear_xpu_kernel_iq2_xxs_q8_1 : dot_kernel<formats::iq2_xxs, T, dot_tree::in_type, 2> {};
template <typename T>
struct qlinear_xpu_kernel_iq1_s_q8_1 : dot_kernel<formats::iq1_s, T, dot_tree::in_float, 1> {};

namespace {

template <int Rows>
auto range_of(uint64_t output_size) {
  if constexpr (Rows == 1) {
    return sycl::nd_range<1>(static_cast<uint32_t>(output_size * 32), 32);
  } else {
    const size_t first = static_cast<uint32_t>(output_size * 16 + 16) & ~31u;
    return sycl::nd_range<2>(sycl::range<2>(first, 2), sycl::range<2>(32, 2));
  }
}

// Quantizes the row, then multiplies; the bytes in between live until the second launch is on its way.
template <template <typename> typename Kernel>
void launch_dot(c10::ScalarType type, const row_launch& a, const char* function) {
  const at::Tensor activations = quantize_q8_1(a.x, type, 1, static_cast<int64_t>(a.state_size), a.device);
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    using K = Kernel<T>;
    const auto make = [&](sycl::handler& h) {
      K kernel;
      kernel.output_size = a.output_size;
      kernel.blocks = static_cast<uint32_t>(a.state_size >> 8);
      kernel.weight = a.weight;
      kernel.activations = static_cast<const uint8_t*>(activations.data_ptr());
      kernel.y = static_cast<T*>(a.y);
      if (K::tree == dot_tree::in_type) kernel.partial = sycl::local_accessor<T>(sycl::range<1>(32 * K::rows), h);
      return kernel;
    };
    launch(a.device, range_of<K::rows>(a.output_size), {"linear_xpu_kernel", function}, make, default_record, a.waits);
  });
}

}  // namespace

void launch_row_q2_k(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_dot<qlinear_xpu_kernel_q2_k_q8_1>(type, args, "qlinear_xpu_kernel_q2_k_q8_1");
}

void launch_row_iq2_xxs(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_dot<qlinear_xpu_kernel_iq2_xxs_q8_1>(type, args, "qlinear_xpu_kernel_iq2_xxs_q8_1");
}

void launch_row_iq1_s(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_dot<qlinear_xpu_kernel_iq1_s_q8_1>(type, args, "qlinear_xpu_kernel_iq1_s_q8_1");
}

}  // namespace orrery
