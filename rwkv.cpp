// RWKV: the recurrences of its versions 4 and 5, with the state in the caller's tensors, and the time shift before
// them.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <cstdint>

#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

// Of a number and a NaN, the number.
template <int N>
simd<float, N> fmax(const simd<float, N>& a, const simd<float, N>& b) {
  return select(b == b, select_less(b, a, a, b), a);
}

// Neighbouring channels of version 4. Numerator and denominator are scaled by e^-mx, so that no exponent is above 0.
template <int N>
struct channels {
  using V = simd<float, N>;

  V decay, first, num, den, mx;

  V step(const V& k, const V& v) {
    const V w = first + k;
    const powers now = powers_of(mx, w, fmax(mx, w));
    const V out = (now.a * num + now.b * v) / (now.a * den + now.b);
    const V w2 = mx + decay;
    mx = fmax(w2, k);
    const powers next = powers_of(w2, k, mx);
    num = next.a * num + next.b * v;
    den = next.a * den + next.b;
    return out;
  }

 private:
  struct powers {
    V a, b;
  };
  // e^(a - m) and e^(b - m), where m is the larger of a and b. One of them is e^0, so one exponential gives both. Where
  // a difference is a NaN, the other power may become the NaN, which makes the same three results NaNs.
  static powers powers_of(const V& a, const V& b, const V& m) {
    const V e = native::exp((a - m) + (b - m)), one(1.0f);
    return {select_less(a, b, e, one), select_less(a, b, one, e)};
  }
};

// A work-item owns a channel.
template <typename T, int GS, int SBS>
struct rwkv_linear_attention_kernel_v4 {
  static constexpr int sub_group_size = SBS;
  static constexpr bool has_barriers = false;

  const T *time_decay, *time_first, *key, *value;
  float *num_state, *den_state, *max_state;
  T* out;
  uint64_t seq_len, hidden_size;

  template <typename Item>
  void operator()(const Item& item) const {
    run<Item::lanes, 1>(item.global(0), item.global(1), 1);
  }

  // Neighbouring groups step by step, so that memory is read in row order, and a step's chain of dependent operations
  // has those of other channels beside it.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    constexpr size_t together = 4;
    const size_t groups = std::min({most, item.group_range(1) - item.group(1), together});
    run<SBS, together * GS / SBS>(item.group(0), item.group(1) * GS, groups * GS / SBS);
    return groups;
  }

 private:
  // `count` times N channels from channel c of sequence b on, Most times at most.
  template <int N, int Most>
  void run(uint64_t b, uint64_t c, int count) const {
    const auto widened = [](const T* p) { return convert<float>(simd<T, N>::load(p)); };
    using V = simd<float, N>;
    channels<N> all[Most];
    const uint64_t state = b * hidden_size + c;
    for (int i = 0; i < count; ++i) {
      const uint64_t at = state + i * N;
      all[i] = {widened(time_decay + c + i * N), widened(time_first + c + i * N), V::load(num_state + at),
                V::load(den_state + at), V::load(max_state + at)};
    }
    for (uint64_t t = 0; t < seq_len; ++t) {
      const uint64_t row = (b * seq_len + t) * hidden_size + c;
      for (int i = 0; i < count; ++i) {
        const uint64_t at = row + i * N;
        convert<T>(all[i].step(widened(key + at), widened(value + at))).store(out + at);
      }
    }
    for (int i = 0; i < count; ++i) {
      all[i].num.store(num_state + state + i * N);
      all[i].den.store(den_state + state + i * N);
      all[i].mx.store(max_state + state + i * N);
    }
  }
};

// A work-item owns a column of a head's state matrix.
template <int HD, int GS, int SBS>
struct rwkv_linear_attention_kernel_v5 {
  static constexpr int sub_group_size = SBS;
  static constexpr bool has_barriers = false;

  const float *time_decay, *time_first, *receptance, *key, *value;
  float *state, *out;
  uint64_t num_heads, seq_len;
  uint64_t stride[3];  // of batch, head and position

  template <typename Item>
  void operator()(const Item& item) const {
    columns<Item::lanes>(item.global(0), item.global(1), item.global(2));
  }

  // Both groups of a head: its keys and receptances are loaded once for all columns, and the sum of a column, a chain
  // of 64 dependent additions, has three others beside it.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    const uint64_t b = item.group(0), h = item.group(1), first = item.group(2) * GS;
    if (first == 0 && most >= HD / GS) {
      columns<HD>(b, h, 0);
      return HD / GS;
    }
    columns<GS>(b, h, first);
    return 1;
  }

 private:
  template <int N>
  void columns(uint64_t b, uint64_t h, uint64_t j) const {
    using V = simd<float, N>;
    const float *w = time_decay + h * HD, *u = time_first + h * HD;
    float* matrix = state + (b * num_heads + h) * HD * HD + j;
    V s[HD];
    for (int i = 0; i < HD; ++i) s[i] = V::load(matrix + i * HD);
    for (uint64_t t = 0; t < seq_len; ++t) {
      const uint64_t row = b * stride[0] + h * stride[1] + t * stride[2];
      const float *k = key + row, *r = receptance + row;
      const V v = V::load(value + row + j);
      V acc;
      for (int i = 0; i < HD; ++i) {
        const V a = V(k[i]) * v;
        acc += V(r[i]) * (V(u[i]) * a + s[i]);
        s[i] = a + V(w[i]) * s[i];
      }
      acc.store(out + ((b * seq_len + t) * num_heads + h) * HD + j);
    }
    for (int i = 0; i < HD; ++i) s[i].store(matrix + i * HD);
  }
};

// A work-item computes one element for every mix vector.
template <typename T, int GS, int SBS>
struct rwkv_time_shift_kernel {
  static constexpr int sub_group_size = SBS;
  static constexpr bool has_barriers = false;

  const T *hidden, *shifted, *mix;
  T* out;
  uint64_t mix_num, bsz, seq_len, hidden_size;

  template <typename Item>
  void operator()(const Item& item) const {
    using V = simd<T, Item::lanes>;
    const uint64_t c = item.global(2), off = (item.global(0) * seq_len + item.global(1)) * hidden_size + c;
    const V past = V::load(shifted + off), d = V::load(hidden + off) - past;
    for (uint64_t m = 0; m < mix_num; ++m) {
      (past + V::load(mix + m * hidden_size + c) * d).store(out + m * (bsz * seq_len * hidden_size) + off);
    }
  }
};

template <typename T, int GS, int SBS>
void launch_v4(const at::Tensor& time_decay, const at::Tensor& time_first, const at::Tensor& key,
               const at::Tensor& value, const at::Tensor& num_state, const at::Tensor& den_state,
               const at::Tensor& max_state, const at::Tensor& out) {
  const uint64_t bsz = key.size(0), seq_len = key.size(1), hidden_size = key.size(2);
  const rwkv_linear_attention_kernel_v4<T, GS, SBS> kernel{time_decay.data_ptr<T>(),
                                                           time_first.data_ptr<T>(),
                                                           key.data_ptr<T>(),
                                                           value.data_ptr<T>(),
                                                           num_state.data_ptr<float>(),
                                                           den_state.data_ptr<float>(),
                                                           max_state.data_ptr<float>(),
                                                           out.data_ptr<T>(),
                                                           seq_len,
                                                           hidden_size};
  ORRERY_ASSERT(hidden_size % GS == 0);
  launch(key.device(), sycl::nd_range<2>({bsz, hidden_size}, {1, GS}), {"rwkv", "rwkv_linear_attention_kernel_v4"},
         [&](sycl::handler&) { return kernel; });
}

template <typename T, int GS, int SBS>
void launch_time_shift(const at::Tensor& hidden, const at::Tensor& shifted, const at::Tensor& mix,
                       const at::Tensor& out) {
  const uint64_t mix_num = mix.size(0), bsz = hidden.size(0), seq_len = hidden.size(1), hidden_size = hidden.size(2);
  ORRERY_ASSERT(hidden_size % GS == 0);
  const rwkv_time_shift_kernel<T, GS, SBS> kernel{
      hidden.data_ptr<T>(), shifted.data_ptr<T>(), mix.data_ptr<T>(), out.data_ptr<T>(), mix_num, bsz, seq_len,
      hidden_size};
  launch(hidden.device(), sycl::nd_range<3>({bsz, seq_len, hidden_size}, {1, 1, GS}),
         {"rwkv", "rwkv_time_shift_kernel"}, [&](sycl::handler&) { return kernel; });
}

}  // namespace

at::Tensor rwkv_linear_attention_v4(const at::Tensor& time_decay, const at::Tensor& time_first, const at::Tensor& key,
                                    const at::Tensor& value, const at::Tensor& num_state, const at::Tensor& den_state,
                                    const at::Tensor& max_state) {
  ORRERY_ASSERT(time_decay.dim() == 1 && time_first.dim() == 1);
  ORRERY_ASSERT(key.dim() == 3 && value.dim() == 3);
  ORRERY_ASSERT(num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2);
  ORRERY_ASSERT(time_decay.scalar_type() == key.scalar_type() && time_first.scalar_type() == key.scalar_type());
  at::Tensor out = at::empty({key.size(0), key.size(1), key.size(2)}, key.options());
  with_half_or_float(key.scalar_type(), [&](auto t) {
    launch_v4<decltype(t), 32, 16>(time_decay, time_first, key, value, num_state, den_state, max_state, out);
  });
  return out;
}

at::Tensor rwkv_linear_attention_v5(const at::Tensor& time_decay, const at::Tensor& time_first,
                                    const at::Tensor& receptance, const at::Tensor& key, const at::Tensor& value,
                                    const at::Tensor& state) {
  ORRERY_ASSERT(time_decay.dim() == 2 && time_first.dim() == 2);
  ORRERY_ASSERT(receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4);
  ORRERY_ASSERT(time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous());
  const int64_t head_dim = key.size(3);
  at::Tensor out = at::empty({key.size(0), key.size(2), key.size(1), head_dim}, key.options());
  ORRERY_ASSERT(head_dim == 64);
  const uint64_t bsz = key.size(0), num_heads = key.size(1), seq_len = key.size(2);
  const auto stride = [&](int d) { return static_cast<uint64_t>(key.stride(d)); };
  constexpr int HD = 64, GS = 32, SBS = 16;
  const rwkv_linear_attention_kernel_v5<HD, GS, SBS> kernel{time_decay.data_ptr<float>(),
                                                            time_first.data_ptr<float>(),
                                                            receptance.data_ptr<float>(),
                                                            key.data_ptr<float>(),
                                                            value.data_ptr<float>(),
                                                            state.data_ptr<float>(),
                                                            out.data_ptr<float>(),
                                                            num_heads,
                                                            seq_len,
                                                            {stride(0), stride(1), stride(2)}};
  launch(key.device(), sycl::nd_range<3>({bsz, num_heads, HD}, {1, 1, GS}), {"rwkv", "rwkv_linear_attention_kernel_v5"},
         [&](sycl::handler&) { return kernel; });
  return out;
}

at::Tensor rwkv_time_shift(const at::Tensor& hidden, const at::Tensor& shifted, const at::Tensor& mix) {
  ORRERY_ASSERT(hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3);
  ORRERY_ASSERT(hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2));
  ORRERY_ASSERT(hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous());
  ORRERY_ASSERT(hidden.scalar_type() == shifted.scalar_type() && hidden.scalar_type() == mix.scalar_type());
  at::Tensor out = at::empty({mix.size(0), hidden.size(0), hidden.size(1), hidden.size(2)}, hidden.options());
  with_half_or_float(hidden.scalar_type(),
                     [&](auto t) { launch_time_shift<decltype(t), 64, 32>(hidden, shifted, mix, out); });
  return out;
}

}  // namespace orrery
