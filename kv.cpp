// One-byte caches of keys and values: into bytes and back, and the products of one query row with them. The code of a
// byte is in formats/key_value_code.h.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <cstdint>

#include "attention/coded_rows.h"
#include "attention/group_tree.h"
#include "attention/walk.h"
#include "formats/key_value_code.h"
#include "includes/assertion.h"
#include "includes/operand.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

using c10::Half;
using formats::key_code;
using formats::value_code;

// ---- Into bytes and back ----

template <typename Code, int HD, typename T>
void code_row(const T* from, uint8_t* to) {
  Code::encode(convert<Half>(simd<T, HD>::load(from)), to);
}
template <typename Code, int HD, typename T>
void code_row(const uint8_t* from, T* to) {
  Code::template decode<T, HD>(from).store(to);
}

// The types of both sides tell the direction. A work-item takes a row of the key and the same row of the value.
template <typename From, typename To, int HD>
struct codec_body {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;

  operand<const From, 3> key;
  operand<To, 3> key_output;
  operand<const From, 3> value;
  operand<To, 3> value_output;

  template <typename Item>
  void operator()(const Item& item) const {
    rows(item, 1);
  }

  // On the host: the rows of a head that are left. One by one, rows of 64 take a fifth longer.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    const size_t count = std::min(most, item.group_range(2) - item.group(2));
    rows(item, count);
    return count;
  }

 private:
  template <typename Item>
  void rows(const Item& item, size_t count) const {
    const uint64_t b = item.global(0), h = item.global(1), s = item.global(2);
    code_rows<key_code>(key, key_output, b, h, s, count);
    code_rows<value_code>(value, value_output, b, h, s, count);
  }

  template <typename Code>
  static void code_rows(const operand<const From, 3>& from, const operand<To, 3>& to, uint64_t b, uint64_t h,
                        uint64_t s, size_t count) {
    const From* x = from.at(b, h, s);
    To* y = to.at(b, h, s);
    for (size_t i = 0; i < count; ++i, x += from.stride[2], y += to.stride[2]) code_row<Code, HD>(x, y);
  }
};

template <typename T, int HD>
struct quantize_key_value_kernel : codec_body<T, uint8_t, HD> {};
template <typename T, int HD>
struct dequantize_key_value_kernel : codec_body<uint8_t, T, HD> {};

struct codec_call {
  const at::Tensor &key, &value, &key_output, &value_output;
};

// Reading them is an operation's first step: a tensor with fewer dimensions fails there.
struct row_sizes {
  int64_t bsz, num_heads, rows, elements;
};
row_sizes sizes_of(const at::Tensor& x) { return {x.size(0), x.size(1), x.size(2), x.size(3)}; }

void check_sizes(const codec_call& c, const row_sizes& sizes) {
  const auto& [key, value, key_output, value_output] = c;
  const auto& [bsz, num_heads, seq_len, head_dim] = sizes;
  ORRERY_ASSERT(value.size(0) == bsz && key_output.size(0) == bsz && value_output.size(0) == bsz);
  ORRERY_ASSERT(value.size(1) == num_heads && key_output.size(1) == num_heads && value_output.size(1) == num_heads);
  ORRERY_ASSERT(value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len);
  ORRERY_ASSERT(value.size(3) == head_dim && key_output.size(3) == head_dim && value_output.size(3) == head_dim);
}

template <typename Kernel, typename From, typename To>
void launch_codec(const codec_call& c, const char* record) {
  const Kernel kernel{{operand_of<const From, 3>(c.key), operand_of<To, 3>(c.key_output),
                       operand_of<const From, 3>(c.value), operand_of<To, 3>(c.value_output)}};
  const uint64_t bsz = c.key.size(0), num_heads = c.key.size(1), seq_len = c.key.size(2);
  submit_kernel(
      [&](sycl::handler& h) {
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, seq_len}, {1, 1, 1}), kernel);
      },
      c.key.device(), record);
}

// ---- Products of one query row ----

// A work-item takes Keys neighbouring keys. Products and sums are in half for any T.
template <typename T, int Keys, int HD>
struct query_key_fp8_matmul_kernel {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;
  static_assert(Keys == keys_at_once);

  uint64_t q_per_kv;
  operand<const T, 2> query;
  operand<const uint8_t, 2> key;
  operand<T, 2> out;
  uint64_t kv_length;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t b = item.global(0), h = item.global(1), first = item.global(2) * Keys;
    const int n = static_cast<int>(std::min<uint64_t>(Keys, kv_length - first));
    const simd<Half, HD> q[1] = {convert<Half>(simd<T, HD>::load(query.at(b, h)))};
    simd<Half, Keys> dot[1];
    dot_keys(q, coded_keys<HD>{key.at(b, h / q_per_kv)}, first, n, no_prefetch, dot);
    convert<T>(dot[0]).store(out.at(b, h) + first, mask<Keys>::first(n));
  }
};

// A group takes a head; its work-items split the keys in order. Products and sums are in half for any T.
template <typename T, int Group, int HD>
struct attn_value_fp8_matmul_kernel {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;

  uint64_t q_per_kv;
  operand<const T, 2> attn;
  operand<const uint8_t, 2> value;
  operand<T, 2> out;
  uint64_t kv_length;
  sycl::local_accessor<Half> local = {};

  using tree = group_tree<Half, HD>;
  static_assert(Group == tree_group);
  static constexpr size_t local_halves = HD * Group;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t b = item.group(0), h = item.group(1);
    const T* weights = attn.at(b, h);
    const coded_values<HD> values{value.at(b, h / q_per_kv)};
    const even_split<Group> range(kv_length);
    in_steps(item, Group, [&](int begin, int end, auto meet) {
      for (int i = begin; i < end; ++i) {
        tree::put(&local[0], i, weighted_sum(weights, values, range.begin(i), range.begin(i + 1)));
      }
      meet();
      T* to = out.at(b, h);
      tree::fold(&local[0], begin, end, [&](int d, const auto& sums) { convert<T>(sums).store(to + d); });
    });
  }

 private:
  using halves = simd<Half, HD>;

  static halves weighted_sum(const T* weights, const coded_values<HD>& values, uint64_t first, uint64_t last) {
    constexpr int some = 16;  // weights that are loaded together
    halves sum;
    for (uint64_t t = first; t < last; t += some) {
      const int n = static_cast<int>(std::min<uint64_t>(some, last - t));
      const auto weight = convert<Half>(simd<T, some>::load(weights + t, mask<some>::first(n)));
      for (int k = 0; k < n; ++k) sum += halves(weight[k]) * values.template load<Half>(t + k);
    }
    return sum;
  }
};

void check_heads(int64_t num_heads, int64_t num_kv_heads, int64_t input_size) {
  // With no heads the remainder below would be a division by zero, not a failed assertion.
  if (num_kv_heads == 0) assertion_failed("num_heads % num_kv_heads == 0", __FILE__, __LINE__, __func__);
  ORRERY_ASSERT(num_heads % num_kv_heads == 0);
  ORRERY_ASSERT(input_size == 1);
}

struct matmul_call {
  const at::Tensor &rows, &cache, &out;
};

template <typename Kernel, typename T>
Kernel bound(const matmul_call& c) {
  return {static_cast<uint64_t>(c.rows.size(1)) / static_cast<uint64_t>(c.cache.size(1)),
          operand_of<const T, 2>(c.rows), operand_of<const uint8_t, 2>(c.cache), operand_of<T, 2>(c.out),
          static_cast<uint64_t>(c.cache.size(2))};
}

template <typename T, int HD>
void launch_query_key(const matmul_call& c) {
  constexpr int keys = keys_at_once;
  const auto kernel = bound<query_key_fp8_matmul_kernel<T, keys, HD>, T>(c);
  const uint64_t bsz = c.rows.size(0), num_heads = c.rows.size(1), groups = (kernel.kv_length + keys - 1) / keys;
  submit_kernel(
      [&](sycl::handler& h) {
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, groups}, {1, 1, 1}), kernel);
      },
      c.rows.device(), "query key fp8 matmul");
}

template <typename T, int HD>
void launch_attn_value(const matmul_call& c) {
  constexpr int group = 32;
  auto kernel = bound<attn_value_fp8_matmul_kernel<T, group, HD>, T>(c);
  const uint64_t bsz = c.rows.size(0), num_heads = c.rows.size(1);
  submit_kernel(
      [&](sycl::handler& h) {
        kernel.local = sycl::local_accessor<Half>(sycl::range<1>(kernel.local_halves), h);
        parallel_for(h, sycl::nd_range<3>({bsz, num_heads, group}, {1, 1, group}), kernel);
      },
      c.rows.device(), "attn value fp8 matmul");
}

}  // namespace

void quantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
                        const at::Tensor& value_output) {
  const row_sizes sizes = sizes_of(key);
  ORRERY_ASSERT(key.scalar_type() == value.scalar_type());
  const codec_call c{key, value, key_output, value_output};
  check_sizes(c, sizes);
  with_head_dim_and_type(sizes.elements, key.scalar_type(), [&](auto hd, auto t) {
    using T = decltype(t);
    launch_codec<quantize_key_value_kernel<T, hd()>, T, uint8_t>(c, "quantize kv cache");
  });
}

void dequantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
                          const at::Tensor& value_output) {
  const row_sizes sizes = sizes_of(key);
  ORRERY_ASSERT(key_output.scalar_type() == value_output.scalar_type());
  const codec_call c{key, value, key_output, value_output};
  check_sizes(c, sizes);
  with_head_dim_and_type(sizes.elements, key_output.scalar_type(), [&](auto hd, auto t) {
    using T = decltype(t);
    launch_codec<dequantize_key_value_kernel<T, hd()>, uint8_t, T>(c, "dequantize kv cache");
  });
}

at::Tensor query_key_fp8_matmul(const at::Tensor& query, const at::Tensor& key) {
  const auto [bsz, num_heads, input_size, head_dim] = sizes_of(query);
  const int64_t num_kv_heads = key.size(1), kv_length = key.size(2);
  ORRERY_ASSERT(query.size(0) == key.size(0));
  ORRERY_ASSERT(query.size(3) == key.size(3));
  check_heads(num_heads, num_kv_heads, input_size);
  const at::Tensor out = at::empty({bsz, num_heads, 1, kv_length}, query.options());
  with_head_dim_and_type(head_dim, query.scalar_type(), [&](auto hd, auto t) {
    launch_query_key<decltype(t), hd()>({query, key, out});
  });
  return out;
}

at::Tensor attn_value_fp8_matmul(const at::Tensor& attn, const at::Tensor& value) {
  const auto [bsz, num_heads, input_size, kv_length] = sizes_of(attn);
  const int64_t num_kv_heads = value.size(1), head_dim = value.size(3);
  ORRERY_ASSERT(attn.size(0) == value.size(0));
  ORRERY_ASSERT(attn.size(3) == value.size(2));
  check_heads(num_heads, num_kv_heads, input_size);
  const at::Tensor out = at::empty({bsz, num_heads, 1, head_dim}, attn.options());
  with_head_dim_and_type(head_dim, attn.scalar_type(), [&](auto hd, auto t) {
    launch_attn_value<decltype(t), hd()>({attn, value, out});
  });
  return out;
}

}  // namespace orrery
