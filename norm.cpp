// rms_norm: each input row divided by the root of its mean square, times a weight.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <cstdint>

#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

// A work-group computes a row, a work-item a run of its blocks. The weighted row is kept in local memory until the sum
// is known.
template <typename T, int GS, int BS>
struct rms_norm_kernel {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  using vector = simd<float, BS>;

  const T* weight;
  const T* input;
  uint64_t hidden_size;
  T* out;
  float eps;
  sycl::local_accessor<float> local;  // hidden_size weighted elements, then GS partial sums

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t row = item.global(0), tid = item.local_linear();
    const even_split<GS> blocks(hidden_size / BS);
    const T* x = input + row * hidden_size;
    float* weighted = &local[0];
    float* partial = weighted + hidden_size;

    vector acc;
    for (uint64_t i = blocks.begin(tid); i < blocks.begin(tid + 1); ++i) {
      const auto w = convert<float>(simd<T, BS>::load(weight + i * BS));
      const auto v = convert<float>(simd<T, BS>::load(x + i * BS));
      (w * v).store(weighted + i * BS);
      acc += v * v;
    }
    partial[tid] = fold(acc);

    meet_to_finish<GS>(item, [&](int begin, int end) {
      const float mean = fold(simd<float, GS>::load(partial)) / static_cast<float>(hidden_size);
      const vector r(1.0f / native::sqrt(mean + eps));
      T* o = out + row * hidden_size;
      for (uint64_t i = blocks.begin(begin); i < blocks.begin(end); ++i) {
        convert<T>(vector::load(weighted + i * BS) * r).store(o + i * BS);
      }
    });
  }
};

template <typename T, int GS, int BS>
void launch_rms_norm(const at::Tensor& weight, const at::Tensor& input, const at::Tensor& out, float eps, uint64_t rows,
                     uint64_t hidden_size) {
  ORRERY_ASSERT(hidden_size % BS == 0);
  ORRERY_ASSERT(hidden_size * sizeof(float) <= 32 * 1024);
  const T* w = weight.data_ptr<T>();
  const T* x = input.data_ptr<T>();
  T* o = out.data_ptr<T>();
  launch(
      input.device(), sycl::nd_range<2>({rows, GS}, {1, GS}), {"norm", "rms_norm_kernel"},
      [&](sycl::handler& h) {
        // Always the size for the longest row, and the partial sums.
        sycl::local_accessor<float> local(sycl::range<1>(32 * 1024 / sizeof(float) + GS), h);
        return rms_norm_kernel<T, GS, BS>{w, x, hidden_size, o, eps, local};
      },
      "rms norm");
}

at::Tensor rms_norm_of_type(const at::Tensor& weight, const at::Tensor& input, float eps) {
  const int64_t rows = input.size(0), hidden_size = input.size(1);
  ORRERY_ASSERT(weight.dim() == 1);
  ORRERY_ASSERT(input.dim() == 2);
  ORRERY_ASSERT(weight.size(0) == input.size(1));
  ORRERY_ASSERT(weight.scalar_type() == input.scalar_type());
  at::Tensor out = at::empty({rows, hidden_size}, input.options());
  with_half_or_float(input.scalar_type(),
                     [&](auto t) { launch_rms_norm<decltype(t), 32, 32>(weight, input, out, eps, rows, hidden_size); });
  return out;
}

}  // namespace

at::Tensor rms_norm(const at::Tensor& weight, const at::Tensor& input, float eps) {
  ORRERY_ASSERT(input.scalar_type() == weight.scalar_type());
  if (input.scalar_type() != at::kBFloat16) return rms_norm_of_type(weight, input, eps);
  return rms_norm_of_type(weight.to(at::kHalf), input.to(at::kHalf), eps).to(at::kBFloat16);
}

}  // namespace orrery
