// Rotary position embedding of query and key in place; angles are computed on the fly.
#include <ATen/core/Tensor.h>

#include <cstdint>

#include "includes/assertion.h"
#include "includes/operand.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

template <typename T>
struct rotary_arguments {
  uint64_t q_heads;
  operand<T, 3> query, key;
  const int64_t* position_ids;
  uint64_t seq_len;
  const T* inv_freq;

  template <typename Item>
  T* row(const Item& item) const {
    const uint64_t b = item.global(0), h = item.global(1), s = item.global(2);
    return h < q_heads ? query.at(b, h, s) : key.at(b, h - q_heads, s);
  }
};

template <typename T, int N>
struct pair_of_halves {
  simd<T, N> first, second;
};

// (x1, x2) rotated by the angle inv_freq * position. Sine and cosine are rounded to T before the products, which are in
// T.
template <int N, typename T, typename Item>
pair_of_halves<T, N> turned(const rotary_arguments<T>& a, const Item& item, const simd<T, N>& x1,
                            const simd<T, N>& x2) {
  const float position = static_cast<float>(a.position_ids[item.global(0) * a.seq_len + item.global(2)]);
  const auto theta = convert<float>(simd<T, N>::load(a.inv_freq)) * simd<float, N>(position);
  const auto c = convert<T>(native::cos(theta)), n = convert<T>(native::sin(theta));
  return {x1 * c - x2 * n, x2 * c + x1 * n};
}

// Pairs element i of a head with element i + HD / 2.
template <typename T, int HD>
struct rotary_half_inplaced_kernel : rotary_arguments<T> {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;

  template <typename Item>
  void operator()(const Item& item) const {
    T* row = this->row(item);
    const auto x = simd<T, HD>::load(row);
    const auto y = turned(*this, item, x.template slice<0, HD / 2>(), x.template slice<HD / 2, HD / 2>());
    simd<T, HD> out;
    out.template set_slice<0, HD / 2>(y.first);
    out.template set_slice<HD / 2, HD / 2>(y.second);
    out.store(row);
  }
};

// Pairs element 2 i of a head with element 2 i + 1.
template <typename T, int HD>
struct rotary_two_inplaced_kernel : rotary_arguments<T> {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;

  template <typename Item>
  void operator()(const Item& item) const {
    T* row = this->row(item);
    const auto [even, odd] = split_pairs(simd<T, HD>::load(row));
    const auto y = turned(*this, item, even, odd);
    join_pairs(y.first, y.second).store(row);
  }
};

template <template <typename, int> typename Kernel, typename T, int HD>
void launch_rotary(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query,
                   const at::Tensor& key, const char* record) {
  const uint64_t bsz = query.size(0), q_heads = query.size(1), seq_len = query.size(2), k_heads = key.size(1);
  const Kernel<T, HD> kernel{{q_heads, operand_of<T, 3>(query), operand_of<T, 3>(key), position_ids.data_ptr<int64_t>(),
                              seq_len, inv_freq.data_ptr<T>()}};
  submit_kernel(
      [&](sycl::handler& h) {
        parallel_for(h, sycl::nd_range<3>({bsz, q_heads + k_heads, seq_len}, {1, 1, 1}), kernel);
      },
      query.device(), record);
}

template <template <typename, int> typename Kernel>
void rotary(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query, const at::Tensor& key,
            const char* record) {
  const int64_t head_dim = query.size(3);
  ORRERY_ASSERT(inv_freq.device().is_xpu());
  ORRERY_ASSERT(position_ids.device().is_xpu());
  ORRERY_ASSERT(inv_freq.scalar_type() == query.scalar_type() && inv_freq.scalar_type() == key.scalar_type());
  ORRERY_ASSERT(inv_freq.is_contiguous());
  ORRERY_ASSERT(position_ids.is_contiguous());
  ORRERY_ASSERT(inv_freq.numel() == head_dim / 2);
  with_head_dim_and_type(head_dim, key.scalar_type(), [&](auto hd, auto t) {
    launch_rotary<Kernel, decltype(t), hd()>(inv_freq, position_ids, query, key, record);
  });
}

}  // namespace

void rotary_half_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query,
                          const at::Tensor& key) {
  rotary<rotary_half_inplaced_kernel>(inv_freq, position_ids, query, key, "rotary half");
}

void rotary_two_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query,
                         const at::Tensor& key) {
  rotary<rotary_two_inplaced_kernel>(inv_freq, position_ids, query, key, "rotary every two");
}

}  // namespace orrery
