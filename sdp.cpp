// sdp: softmax(query key^T / sqrt(head_dim) + mask) value, for each query row. The walk over the keys is in
// attention/walk.h.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <cstdint>
#include <optional>
#include <type_traits>

#include "attention/walk.h"
#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

struct no_mask {};

// Strides in elements.
template <typename T, int Strides>
struct operand {
  T* data = nullptr;
  uint64_t stride[Strides] = {};

  uint64_t offset(uint64_t b, uint64_t h) const { return b * stride[0] + h * stride[1]; }
  uint64_t offset(uint64_t b, uint64_t h, uint64_t r) const { return offset(b, h) + r * stride[Strides - 1]; }
};

template <typename T, int Strides>
operand<T, Strides> operand_of(const at::Tensor& x) {
  operand<T, Strides> o;
  o.data = x.data_ptr<std::remove_const_t<T>>();
  for (int d = 0; d < Strides; ++d) o.stride[d] = static_cast<uint64_t>(x.stride(d));
  return o;
}

template <typename T, typename M, int HD>
struct sdp_body {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr bool masked = !std::is_same_v<M, no_mask>;

  uint64_t q_per_kv;
  operand<const T, 3> query;
  operand<const T, 2> key, value;
  operand<const M, 3> mask;
  operand<T, 3> out;
  uint64_t context_length;
  sycl::local_accessor<float> local;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t b = item.global(0), h = item.global(1), r = item.group(2);
    const uint64_t kvh = h / q_per_kv;
    const auto q = simd<T, HD>::load(query.data + query.offset(b, h, r));
    const plain_rows<T, HD> keys{key.data + key.offset(b, kvh)}, values{value.data + value.offset(b, kvh)};
    const auto add_mask = [&]([[maybe_unused]] uint64_t t, [[maybe_unused]] int n, const auto& x) {
      if constexpr (masked) {
        const M* at = mask.data + mask.offset(b, h, r) + t;
        return x + convert<float>(simd<M, keys_at_once>::load(at, orrery::mask<keys_at_once>::first(n)));
      } else {
        return x;
      }
    };
    const auto share = walk_keys(item, context_length, q, keys, values, add_mask);
    T* o = out.data + out.offset(b, h, r);
    sum_over_group(item, &local[0], share, [&](int d, const auto& lanes, float total) {
      convert<T>(lanes / std::decay_t<decltype(lanes)>(total)).store(o + d);
    });
  }
};

template <typename T, int Group, int HD>
struct sdp_kernel : sdp_body<T, no_mask, HD> {};

namespace with_mask {
template <typename T, typename M, int Group, int HD>
struct sdp_kernel : sdp_body<T, M, HD> {};
}  // namespace with_mask

struct call {
  const at::Tensor &query, &key, &value;
  const std::optional<at::Tensor>& mask;  // one slice per query head
  const at::Tensor& out;
};

template <typename T, typename M, int HD>
void launch_sdp(const call& c) {
  using kernel =
      typename std::conditional_t<std::is_same_v<M, no_mask>, std::type_identity<sdp_kernel<T, walk_group, HD>>,
                                  std::type_identity<with_mask::sdp_kernel<T, M, walk_group, HD>>>::type;
  const uint64_t bsz = c.query.size(0), num_heads = c.query.size(1), input_size = c.query.size(2);
  sdp_body<T, M, HD> body{};
  body.q_per_kv = num_heads / static_cast<uint64_t>(c.key.size(1));
  body.query = operand_of<const T, 3>(c.query);
  body.key = operand_of<const T, 2>(c.key);
  body.value = operand_of<const T, 2>(c.value);
  if constexpr (body.masked) body.mask = operand_of<const M, 3>(*c.mask);
  body.out = operand_of<T, 3>(c.out);
  body.context_length = c.key.size(2);
  submit_kernel(
      [&](sycl::handler& h) {
        body.local = sycl::local_accessor<float>(sycl::range<1>(walk_memory<HD>), h);
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, input_size * walk_group}, {1, 1, walk_group}), kernel{body});
      },
      c.query.device(), "sdp");
}

template <int HD>
void choose_types(const call& c) {
  with_half_or_float(c.query.scalar_type(), [&](auto t) {
    using T = decltype(t);
    if (!c.mask) return launch_sdp<T, no_mask, HD>(c);
    with_half_or_float(c.mask->scalar_type(), [&](auto m) { launch_sdp<T, decltype(m), HD>(c); });
  });
}

}  // namespace

at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
               const std::optional<at::Tensor>& mask) {
  const int64_t bsz = query.size(0), num_heads = query.size(1), input_size = query.size(2), head_dim = query.size(3);
  const int64_t context_length = key.size(2);
  ORRERY_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  ORRERY_ASSERT(query.size(3) == key.size(3) && key.size(3) == value.size(3));
  // With no heads the remainder below would be a division by zero, not a failed assertion.
  if (key.size(1) == 0) {
    assertion_failed("query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)", __FILE__, __LINE__, __func__);
  }
  ORRERY_ASSERT(query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1));
  ORRERY_ASSERT(key.size(2) == value.size(2));
  ORRERY_ASSERT(query.scalar_type() == key.scalar_type() && query.scalar_type() == value.scalar_type());
  const at::Tensor out = at::empty({bsz, num_heads, input_size, head_dim}, query.options());
  std::optional<at::Tensor> expanded;
  if (mask) {
    ORRERY_ASSERT(mask->size(0) == bsz);
    ORRERY_ASSERT(mask->size(1) == num_heads || mask->size(1) == 1);
    ORRERY_ASSERT(mask->size(2) == input_size);
    ORRERY_ASSERT(mask->size(3) == context_length);
    expanded = mask->size(1) == 1 ? mask->expand({-1, num_heads, -1, -1}) : *mask;
  }
  const call c{query, key, value, expanded, out};
  with_head_dim(head_dim, [&](auto hd) { choose_types<hd()>(c); });
  return out;
}

}  // namespace orrery
