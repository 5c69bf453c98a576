// sdp: softmax(query key^T / sqrt(head_dim) + mask) value, for every query row by itself.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include "includes/assertion.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

constexpr int GS = 32;

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

constexpr float scale_of(int head_dim) {
  const uint32_t bits = head_dim == 64 ? 0x3E000000u : head_dim == 96 ? 0x3DD105ECu : 0x3DB504F3u;
  return std::bit_cast<float>(bits);
}
constexpr float log2_e = std::bit_cast<float>(0x3FB8AA3Bu);

// Sums a vector and a float over the work-items of a group by the halving tree, in `local`, GS * (HD + 1) floats, and
// calls store(d, sums of lanes d, d + 1, ..., sum of the floats). A kernel's last act. A GPU's work-item writes its
// vector as a column and folds a few rows. On the host the last strand takes 16 lanes of all vectors at once, where
// columns would be 4096 stores of one float.
template <int HD, typename Item, typename Store>
void sum_over_group(const Item& item, float* local, const simd<float, HD>& acc, float sum, Store store) {
  const size_t tid = item.local_linear();
  float* sums = local + HD * GS;
  sums[tid] = sum;
  if constexpr (last_finishes) {
    acc.store(local + tid * HD);
  } else {
    acc.store_strided(local + tid, GS);
  }
  meet_to_finish<GS>(item, [&](int begin, int end) {
    const float total = fold(simd<float, GS>::load(sums));
    if constexpr (last_finishes) {
      constexpr int W = 16;
      using vector = simd<float, W>;
      for (int d = 0; d < HD; d += W) {
        vector v[GS / 2];
        ORRERY_UNROLL for (int i = 0; i < GS / 2; ++i) {
          v[i] = vector::load(local + i * HD + d) + vector::load(local + (i + GS / 2) * HD + d);
        }
        ORRERY_UNROLL for (int h = GS / 4; h >= 1; h /= 2) {
          ORRERY_UNROLL for (int i = 0; i < h; ++i) v[i] += v[i + h];
        }
        store(d, v[0], total);
      }
    } else {
      for (int d = begin * (HD / GS); d < end * (HD / GS); ++d) {
        store(d, simd<float, 1>(fold(simd<float, GS>::load(local + d * GS))), total);
      }
    }
  });
}

// A work-group takes one query row of one head; its work-items share the keys and meet once, at the end.
template <typename T, typename M, int HD>
struct sdp_body {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr bool masked = !std::is_same_v<M, no_mask>;
  static constexpr int keys = 16;  // whose dot products are folded together

  uint64_t q_per_kv;
  operand<const T, 3> query;
  operand<const T, 2> key, value;
  operand<const M, 3> mask;
  operand<T, 3> out;
  uint64_t context_length;
  sycl::local_accessor<float> local;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t b = item.global(0), h = item.global(1), r = item.group(2), tid = item.local_linear();
    const uint64_t kvh = h / q_per_kv;
    const auto q = simd<T, HD>::load(query.data + query.offset(b, h, r));
    const uint64_t k = key.offset(b, kvh), v = value.offset(b, kvh), m = mask.offset(b, h, r);
    const even_split<GS> range(context_length);

    simd<float, HD> acc;
    float sum = 0.0f;
    for (uint64_t t = range.begin(tid), last = range.begin(tid + 1); t < last; t += keys) {
      const int n = static_cast<int>(std::min<uint64_t>(keys, last - t));
      float e[keys];
      weights(q, k + t * HD, m + t, n, e);
      for (int i = 0; i < n; ++i) {
        acc += convert<float>(simd<T, HD>::load(value.data + v + (t + i) * HD)) * simd<float, HD>(e[i]);
        sum += e[i];
      }
    }

    T* o = out.data + out.offset(b, h, r);
    sum_over_group(item, &local[0], acc, sum, [&](int d, const auto& lanes, float total) {
      convert<T>(lanes / std::decay_t<decltype(lanes)>(total)).store(o + d);
    });
  }

 private:
  // e[i] = exp(scale * dot(q, key i) + mask i) for n keys from the offsets k and m on; no maximum is taken off.
  void weights(const simd<T, HD>& q, uint64_t k, uint64_t m, int n, float (&e)[keys]) const {
    simd<T, keys> part[keys];
    for (int i = 0; i < n; ++i) part[i] = fold_to<keys>(q * simd<T, HD>::load(key.data + k + i * HD));
    auto x = convert<float>(fold_each(part)) * simd<float, keys>(scale_of(HD));
    if constexpr (masked) {
      x += convert<float>(simd<M, keys>::load(mask.data + m, orrery::mask<keys>::first(n)));
    }
    native::exp2(x * simd<float, keys>(log2_e)).store(e);
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
  const std::optional<at::Tensor>& mask;  // one slice a query head
  const at::Tensor& out;
};

template <typename T, typename M, int HD>
void launch_sdp(const call& c) {
  using kernel = typename std::conditional_t<std::is_same_v<M, no_mask>, std::type_identity<sdp_kernel<T, GS, HD>>,
                                             std::type_identity<with_mask::sdp_kernel<T, M, GS, HD>>>::type;
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
        body.local = sycl::local_accessor<float>(sycl::range<1>((HD + 1) * GS), h);
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, input_size * GS}, {1, 1, GS}), kernel{body});
      },
      c.query.device(), "sdp");
}

template <int HD>
void choose_types(const call& c) {
  const auto is = [](const at::Tensor& x, at::ScalarType type) { return x.scalar_type() == type; };
  const bool query_float = is(c.query, at::kFloat), query_half = is(c.query, at::kHalf);
  if (!c.mask) {
    if (query_float) return launch_sdp<float, no_mask, HD>(c);
    if (query_half) return launch_sdp<c10::Half, no_mask, HD>(c);
  } else {
    const bool mask_float = is(*c.mask, at::kFloat), mask_half = is(*c.mask, at::kHalf);
    if (query_float && mask_float) return launch_sdp<float, float, HD>(c);
    if (query_float && mask_half) return launch_sdp<float, c10::Half, HD>(c);
    if (query_half && mask_float) return launch_sdp<c10::Half, float, HD>(c);
    if (query_half && mask_half) return launch_sdp<c10::Half, c10::Half, HD>(c);
  }
  throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
}

}  // namespace

at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
               const std::optional<at::Tensor>& mask) {
  const int64_t bsz = query.size(0), num_heads = query.size(1), input_size = query.size(2), head_dim = query.size(3);
  const int64_t context_length = key.size(2);
  ORRERY_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  ORRERY_ASSERT(query.size(3) == key.size(3) && key.size(3) == value.size(3));
  // The remainder by no heads at all is not a false expression but a fault of its own.
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
  switch (head_dim) {
    case 64:
      choose_types<64>(c);
      break;
    case 96:
      choose_types<96>(c);
      break;
    case 128:
      choose_types<128>(c);
      break;
    default:
      throw std::runtime_error("unsupported head_dim, only 128, 96 and 64 are supported");
  }
  return out;
}

}  // namespace orrery
