// Launches of the attention kernels, over a plain cache and over one of a byte per element.
#pragma once

#include <ATen/core/Tensor.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "attention/causal_kernel.h"
#include "attention/sdp_kernel.h"
#include "includes/type_switch.h"
#include "utils.h"

namespace orrery {

struct attention_call {
  const at::Tensor &query, &key, &value;
  const std::optional<at::Tensor>& mask;  // one slice per query head
  const at::Tensor& out;
  const char* record;
};

// Each throws std::runtime_error for a head size, or a type of query or mask, without a kernel.
void launch_sdp(const attention_call& c);
void launch_sdp_causal(const attention_call& c);
void launch_sdp_fp8(const attention_call& c);
void launch_sdp_fp8_causal(const attention_call& c);

// The members that both kinds of kernels have.
template <typename T, typename Kernel>
Kernel bound(const attention_call& c) {
  using cached = const typename Kernel::cached;
  Kernel kernel{};
  kernel.q_per_kv = static_cast<uint64_t>(c.query.size(1)) / static_cast<uint64_t>(c.key.size(1));
  kernel.query = operand_of<const T, 3>(c.query);
  kernel.key = operand_of<cached, 2>(c.key);
  kernel.value = operand_of<cached, 2>(c.value);
  kernel.out = operand_of<T, 3>(c.out);
  kernel.input_size = c.query.size(2);
  return kernel;
}

// The kernels over one kind of cache, by their names.
template <template <typename, int, int> typename Unmasked, template <typename, typename, int, int> typename Masked,
          template <typename, int, int> typename Causal>
struct attention_kernels {
  template <typename T, typename M, int HD>
  using sdp = std::conditional_t<std::is_same_v<M, no_mask>, Unmasked<T, tree_group, HD>, Masked<T, M, tree_group, HD>>;
  template <typename T, int HD>
  using causal = Causal<T, causal_group, HD>;
};

template <typename Kernels, int HD, typename T, typename M>
void launch_split(const attention_call& c) {
  using kernel = typename Kernels::template sdp<T, M, HD>;
  auto k = bound<T, kernel>(c);
  if constexpr (kernel::masked) k.mask = operand_of<const M, 3>(*c.mask);
  k.context_length = c.key.size(2);
  const uint64_t bsz = c.query.size(0), num_heads = c.query.size(1);
  submit_kernel(
      [&](sycl::handler& h) {
        k.local = sycl::local_accessor<float>(sycl::range<1>(group_sums<HD, 1>::local_floats), h);
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, k.input_size * tree_group}, {1, 1, tree_group}), k);
      },
      c.query.device(), c.record);
}

template <typename Kernels>
void choose_split(const attention_call& c) {
  with_head_dim_and_type(c.query.size(3), c.query.scalar_type(), [&](auto hd, auto t) {
    using T = decltype(t);
    if (!c.mask) return launch_split<Kernels, hd(), T, no_mask>(c);
    with_half_or_float(c.mask->scalar_type(), [&](auto m) { launch_split<Kernels, hd(), T, decltype(m)>(c); });
  });
}

template <typename Kernels, int HD, typename T>
void launch_causal(const attention_call& c) {
  using kernel = typename Kernels::template causal<T, HD>;
  auto k = bound<T, kernel>(c);
  k.log_bias = std::log(static_cast<float>(k.input_size * k.input_size));
  const uint64_t bsz = c.query.size(0), num_heads = c.query.size(1);
  const uint64_t rows = (k.input_size + causal_group - 1) / causal_group * causal_group;
  submit_kernel(
      [&](sycl::handler& h) {
        k.local = sycl::local_accessor<T>(sycl::range<1>(kernel::local_elements), h);
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, rows}, {1, 1, causal_group}), k);
      },
      c.query.device(), c.record);
}

template <typename Kernels>
void choose_causal(const attention_call& c) {
  with_head_dim_and_type(c.query.size(3), c.query.scalar_type(),
                         [&](auto hd, auto t) { launch_causal<Kernels, hd(), decltype(t)>(c); });
}

}  // namespace orrery
