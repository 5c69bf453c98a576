#include "linear/one_row/quantize_q8_1.h"

#include <ATen/ops/empty.h>

#include <stdexcept>
#include <string>

#include "formats/q8_1.h"
#include "includes/item.h"
#include "includes/type_switch.h"
#include "utils.h"

namespace orrery {

namespace {

using formats::q8_1;

// The nearest integer, ties away from zero, clamped to -127 to 127; 0 for a NaN.
template <int N>
simd<int32_t, N> nearest_code(const simd<float, N>& q) {
  using F = simd<float, N>;
  using I = simd<int32_t, N>;
  F v = select(q == q, q, F(0.0f));
  v = select(F(127.0f) < v, F(127.0f), v);
  v = select(v < F(-127.0f), F(-127.0f), v);
  const I whole = convert<int32_t>(v);
  const F rest = v - convert<float>(whole);
  const I up = select(rest < F(0.5f), I(0), I(1)), down = select(F(-0.5f) < rest, I(0), I(1));
  return whole + up - down;
}

// A work-group of the quantizer takes 256 elements, and there are only whole groups.
void check_row_of_groups(uint64_t state_size) {
  if (state_size % 256 == 0) return;
  throw std::runtime_error("orrery_ops: an input that is quantized first must have a multiple of 256 columns, not " +
                           std::to_string(state_size));
}

}  // namespace

// A sub-group makes a block, a lane one code. The codes are computed with the scale in float; the stored scale is
// rounded to half.
template <typename T>
struct quantize_xpu_kernel_q8_1 {
  static constexpr int sub_group_size = q8_1::elements;
  static constexpr bool has_barriers = false;
  static constexpr int work_group = 256;

  const T* x;
  uint8_t* out;

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    using F = simd<float, N>;
    const uint64_t lane = item.template lane<q8_1::elements>();
    const uint64_t b = item.group() * (work_group / q8_1::elements) + item.template sub_group<q8_1::elements>();
    uint8_t* block = out + b * q8_1::bytes;
    const F v = convert<float>(simd<T, N>::load(x + b * q8_1::elements + lane));
    const float sum = butterfly_sum<q8_1::elements>(item, v);
    const F size = bit_cast<float>(bit_cast<uint32_t>(v) & simd<uint32_t, N>(0x7FFFFFFFu));
    const float largest = butterfly<q8_1::elements>(item, size, [](const auto& a, const auto& b) {
      const auto greater = select(b < a, a, b);  // if a is NaN the result is b, and the other way round
      return select(b == b, greater, a);
    });
    const float step = largest * std::bit_cast<float>(0x3C010204u);  // 1 / 127
    simd<int32_t, N> code;
    if (largest != 0.0f) code = nearest_code(v / F(step));
    convert<int8_t>(code).store(reinterpret_cast<int8_t*>(block + q8_1::codes_at + lane));
    if (lane == 0) {
      simd<c10::Half, 1>(c10::Half(step)).store(reinterpret_cast<c10::Half*>(block + q8_1::d_at));
      simd<c10::Half, 1>(c10::Half(sum)).store(reinterpret_cast<c10::Half*>(block + q8_1::sum_at));
    }
  }
};

at::Tensor quantize_q8_1(const at::Tensor& x, int64_t rows, uint64_t state_size, c10::Device device) {
  check_value_type(x.scalar_type());
  check_row_of_groups(state_size);
  const int64_t elements = rows * static_cast<int64_t>(state_size);
  at::Tensor out = at::empty({elements / q8_1::elements * q8_1::bytes}, at::TensorOptions(at::kByte).device(device));
  auto* blocks = static_cast<uint8_t*>(out.data_ptr());
  with_value_type(x.scalar_type(), [&](auto t) {
    using T = decltype(t);
    using kernel = quantize_xpu_kernel_q8_1<T>;
    const sycl::nd_range<1> range(static_cast<size_t>(elements), kernel::work_group);
    launch(device, range, {"linear_xpu_kernel", "quantize_xpu_kernel_q8_1"}, [&](sycl::handler&) {
      return kernel{static_cast<const T*>(x.data_ptr()), blocks};
    });
  });
  return out;
}

}  // namespace orrery
