#include "formats/super_block.h"

#include "linear/launchers.h"
#include "linear/one_row/super_block_kernel.h"

namespace orrery {

template <typename T>
struct qlinear_xpu_kernel_q4_k : row_pair_kernel<formats::q4_k, T> {};
template <typename T>
struct qlinear_xpu_kernel_q5_k : row_pair_kernel<formats::q5_k, T> {};
template <typename T>
struct qlinear_xpu_kernel_q6_k : single_sub_group_kernel<formats::q6_k, T> {};

namespace {

template <template <typename> typename Kernel>
void launch_instance(c10::ScalarType type, const row_launch& a, const char* function) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    using K = Kernel<T>;
    const size_t groups = (a.output_size + K::rows - 1) / K::rows;
    launch(a.device, sycl::nd_range<1>(groups * K::work_group, K::work_group), {"linear_xpu_kernel", function},
           [&](sycl::handler& h) {
             K kernel;
             static_cast<row_arguments<T>&>(kernel) = {
                 a.state_size, a.output_size, a.weight, 0, static_cast<const T*>(a.x), static_cast<T*>(a.y)};
             if constexpr (requires { kernel.partial; }) {
               kernel.partial = sycl::local_accessor<float>(sycl::range<1>(K::rows * K::work_group), h);
             }
             return kernel;
           });
  });
}

}  // namespace

void launch_row_q4_k(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_instance<qlinear_xpu_kernel_q4_k>(type, args, "qlinear_xpu_kernel_q4_k");
}

void launch_row_q5_k(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_instance<qlinear_xpu_kernel_q5_k>(type, args, "qlinear_xpu_kernel_q5_k");
}

void launch_row_q6_k(const row_shape&, c10::ScalarType type, const row_launch& args) {
  launch_instance<qlinear_xpu_kernel_q6_k>(type, args, "qlinear_xpu_kernel_q6_k");
}

}  // namespace orrery
