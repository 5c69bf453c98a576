// Rotary position embedding of tensors of any strides, into outputs of any strides: element i of a head is paired with
// element i + head_dim / 2.
#include <ATen/TensorIterator.h>
#include <ATen/core/Tensor.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "includes/OffsetCalculator.h"
#include "includes/type_switch.h"
#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

using at::Tensor;

// A tensor [batch, head, position, head_dim]. A row is a head's vector at a position; rows are numbered in this order.
template <typename T, typename Calculator>
struct rotary_tensor {
  Calculator at;  // output, input, then sines and cosines if they are given
  const T* in = nullptr;
  T* out = nullptr;
  uint64_t rows = 0;
  uint64_t rows_of_batch = 1;
  bool has_runs = false;  // the rows are contiguous in all of these tensors
};

template <int N>
struct sines {
  simd<float, N> cs, sn;
};

// Element offsets of N pairs of a row: those of the first halves in all tensors, of the second in output and input.
template <int N, size_t Tensors>
struct pair_offsets {
  simd<uint32_t, N> first[Tensors], second[2];

  template <typename Calculator>
  pair_offsets(const Calculator& at, uint64_t i1, uint64_t half_dim, mask<N> live) {
    for (int lane = 0; lane < N; ++lane) {
      if (!live[lane]) continue;
      const auto a = at.offsets(static_cast<uint32_t>(i1 + lane));
      const auto b = at.offsets(static_cast<uint32_t>(i1 + half_dim + lane));
      for (size_t t = 0; t < Tensors; ++t) first[t].set(lane, a[t]);
      for (int t = 0; t < 2; ++t) second[t].set(lane, b[t]);
    }
  }
};

// Sines and cosines of the angles theta^i * position.
struct position_angles {
  static constexpr int tensors = 2;

  OffsetCalculator<1> at;
  const int64_t* position_ids;
  uint64_t seq_len;
  float theta;
  bool backward;
  uint64_t table_positions = 0;  // whose sines and cosines the host makes once a launch; 0: each row makes its own

  float position(uint64_t linear) const {
    return static_cast<float>(position_ids[at.offsets(static_cast<uint32_t>(linear))[0]]);
  }
  float frequency(uint64_t i) const { return native::pow(simd<float, 1>(theta), static_cast<float>(i))[0]; }
  template <int N>
  sines<N> of(const simd<float, N>& frequencies, float position) const {
    const simd<float, N> angle = frequencies * simd<float, N>(position), sn = native::sin(angle);
    return {native::cos(angle), backward ? -sn : sn};
  }

  // Those of a row. `shared` are the host's frequencies and its table, null on a device.
  template <typename Rows>
  auto of_row(const Rows& t, uint64_t row, uint64_t half_dim, const float* shared) const {
    const uint64_t linear = row / t.rows_of_batch * seq_len + row % seq_len;
    const bool known = linear < table_positions && shared != nullptr;
    return angles_of_row{*this, half_dim, known ? 0 : position(linear), shared,
                         known ? shared + half_dim * (1 + 2 * linear) : nullptr};
  }
  struct angles_of_row {
    const position_angles& by;
    uint64_t half_dim;
    float position;
    const float *frequencies, *table;

    template <int N>
    sines<N> pairs(uint64_t j, mask<N> live) const {
      using F = simd<float, N>;
      if (table != nullptr) return {F::load(table + j, live), F::load(table + half_dim + j, live)};
      if (frequencies != nullptr) return by.of(F::load(frequencies + j, live), position);
      F f;
      for (int i = 0; i < N; ++i) {
        if (live[i]) f.set(i, by.frequency(j + i));
      }
      return by.of(f, position);
    }
    template <int N, typename Offsets>
    sines<N> scattered(uint64_t j, mask<N> live, const Offsets&) const {
      return pairs<N>(j, live);
    }
    template <int N, typename Offsets>
    sines<N> contiguous(uint64_t j, mask<N> live, const Offsets&) const {
      return pairs<N>(j, live);
    }
  };

  uint64_t shared_count(uint64_t half_dim) const { return half_dim * (1 + 2 * table_positions); }
  void fill_shared(float* to, uint64_t half_dim) const {
    constexpr int N = 16;
    for (uint64_t i = 0; i < half_dim; ++i) to[i] = frequency(i);
    float* table = to + half_dim;
    for (uint64_t linear = 0; linear < table_positions; ++linear, table += 2 * half_dim) {
      const angles_of_row row{*this, half_dim, position(linear), to, nullptr};
      for (uint64_t j = 0; j < half_dim; j += N) {
        const auto live = mask<N>::first(half_dim - j);
        const sines<N> made = row.pairs<N>(j, live);
        made.cs.store(table + j, live);
        made.sn.store(table + half_dim + j, live);
      }
    }
  }
};

// Given sines and cosines, of which a row's first half counts.
template <typename T>
struct cached_angles {
  static constexpr int tensors = 4;

  const T *sin, *cos;

  template <typename Rows>
  const cached_angles& of_row(const Rows&, uint64_t, uint64_t, const float*) const {
    return *this;
  }
  template <int N, typename Offsets>
  sines<N> scattered(uint64_t, mask<N> live, const Offsets& of) const {
    return {convert<float>(simd<T, N>::gather(cos, of.first[3], live)),
            convert<float>(simd<T, N>::gather(sin, of.first[2], live))};
  }
  template <int N, typename Offsets>
  sines<N> contiguous(uint64_t j, mask<N> live, const Offsets& row) const {
    return {convert<float>(simd<T, N>::load(cos + row[3] + j, live)),
            convert<float>(simd<T, N>::load(sin + row[2] + j, live))};
  }
  uint64_t shared_count(uint64_t) const { return 0; }
  void fill_shared(float*, uint64_t) const {}
};

// The rows of one tensor, then those of another one. A work-group takes every `groups`-th row, a work-item every wg-th
// pair of it. All arithmetic is in float.
template <typename T, typename Angles, typename Calculator>
struct rotary_rows : small_groups<2> {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = false;

  uint64_t total_rows, groups, half_dim, wg;
  rotary_tensor<T, Calculator> query, key;
  Angles angles;

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    for (uint64_t g = item.group(); g < total_rows; g += groups) {
      const auto [t, row] = row_of(g);
      for (uint64_t j = item.local_linear(); j < half_dim; j += wg) {
        turn_scattered<N>(t, row, j, angles.of_row(t, row, half_dim, nullptr));
      }
    }
  }

  // On the host: whole rows, with vectors of pairs where they are contiguous.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    const float* shared = item.template shared_by_launch<float>(angles.shared_count(half_dim),
                                                                [&](float* to) { angles.fill_shared(to, half_dim); });
    for (uint64_t first = item.group(); first < item.group() + most; ++first) {
      for (uint64_t g = first; g < total_rows; g += groups) whole_row(g, shared);
    }
    return most;
  }

 private:
  struct tensor_row {
    const rotary_tensor<T, Calculator>& tensor;
    uint64_t row;
  };
  tensor_row row_of(uint64_t g) const {
    return g < query.rows ? tensor_row{query, g} : tensor_row{key, g - query.rows};
  }

  void whole_row(uint64_t g, const float* shared) const {
    constexpr int N = 16;
    const auto [t, row] = row_of(g);
    const auto& own = angles.of_row(t, row, half_dim, shared);
    if (t.has_runs) return whole_contiguous_row<N>(t, row, own);
    for (uint64_t j = 0; j < half_dim; j += N) turn_scattered<N>(t, row, j, own);
  }

  // Prefetches the next row: where heads alternate in memory it lies in another page, where the hardware does not
  // look.
  template <int N, typename Rows, typename Own>
  void whole_contiguous_row(const Rows& t, uint64_t row, const Own& own) const {
    const auto begin = begin_of(t, row), next = begin_of(t, row + 1 < t.rows ? row + 1 : row);
    for (uint64_t j = 0; j < half_dim; j += N) {
      ORRERY_UNROLL for (uint64_t half = j; half <= j + half_dim; half += half_dim) {
        prefetch<N * sizeof(T)>(t.in + next[1] + half);
        prefetch<N * sizeof(T)>(t.out + next[0] + half);
      }
      turn_contiguous<N>(t, begin, j, own);
    }
  }
  template <typename Rows>
  auto begin_of(const Rows& t, uint64_t row) const {
    return t.at.offsets(static_cast<uint32_t>(row * 2 * half_dim));
  }

  template <int N, typename Rows, typename Own>
  ORRERY_INLINE void turn_scattered(const Rows& t, uint64_t row, uint64_t j, const Own& own) const {
    using V = simd<T, N>;
    const auto live = mask<N>::first(static_cast<int64_t>(half_dim - j));
    const pair_offsets<N, Angles::tensors> of(t.at, row * 2 * half_dim + j, half_dim, live);
    const auto [y1, y2] = turned(V::gather(t.in, of.first[1], live), V::gather(t.in, of.second[1], live),
                                 own.template scattered<N>(j, live, of));
    y1.scatter(t.out, of.first[0], live);
    y2.scatter(t.out, of.second[0], live);
  }

  // `begin` are the row's first offsets.
  template <int N, typename Rows, typename Offsets, typename Own>
  ORRERY_INLINE void turn_contiguous(const Rows& t, const Offsets& begin, uint64_t j, const Own& own) const {
    using V = simd<T, N>;
    const auto live = mask<N>::first(static_cast<int64_t>(half_dim - j));
    const T* x = t.in + begin[1] + j;
    T* y = t.out + begin[0] + j;
    const auto [y1, y2] =
        turned(V::load(x, live), V::load(x + half_dim, live), own.template contiguous<N>(j, live, begin));
    y1.store(y, live);
    y2.store(y + half_dim, live);
  }

  template <int N>
  struct pairs {
    simd<T, N> y1, y2;
  };
  template <int N>
  ORRERY_INLINE static pairs<N> turned(const simd<T, N>& first, const simd<T, N>& second, const sines<N>& by) {
    const auto x1 = convert<float>(first), x2 = convert<float>(second);
    return {convert<T>(by.cs * x1 - by.sn * x2), convert<T>(by.cs * x2 + by.sn * x1)};
  }
};

template <typename T, int NARGS, typename index_t, bool signed_strides,
          template <int, typename, bool> typename Calculator>
struct apply_rotary_embedding_half_kernel_q_and_k
    : rotary_rows<T, position_angles, Calculator<NARGS, index_t, signed_strides>> {};

template <typename T, int NARGS, typename index_t, bool signed_strides,
          template <int, typename, bool> typename Calculator>
struct apply_rotary_embedding_half_kernel_q_or_k
    : rotary_rows<T, position_angles, Calculator<NARGS, index_t, signed_strides>> {};

template <typename T, int NARGS, typename index_t, bool signed_strides,
          template <int, typename, bool> typename Calculator>
struct apply_rotary_embedding_half_kernel_cache_freq
    : rotary_rows<T, cached_angles<T>, Calculator<NARGS, index_t, signed_strides>> {};

constexpr const char* operation = "apply_rotary_embedding";  // in the error of another type
constexpr uint64_t most_groups = 32768, most_work_items = 64;

// Iterates in the order of the dimensions, whatever their strides: positions follow it.
at::TensorIterator iterator_over(std::initializer_list<Tensor> outputs, std::initializer_list<Tensor> inputs) {
  at::TensorIteratorConfig config;
  config.enforce_linear_iteration().resize_outputs(false);
  for (const Tensor& t : outputs) config.add_owned_output(t);
  for (const Tensor& t : inputs) config.add_owned_const_input(t);
  return config.build();
}

template <typename T, int Tensors>
rotary_tensor<T, OffsetCalculator<Tensors>> rotary_tensor_of(const at::TensorIterator& iter, const Tensor& in,
                                                             const Tensor& out, uint64_t head_dim) {
  rotary_tensor<T, OffsetCalculator<Tensors>> t;
  t.at = make_element_offset_calculator<Tensors>(iter);
  t.in = in.const_data_ptr<T>();
  t.out = out.data_ptr<T>();
  t.rows = in.numel() / std::max<uint64_t>(head_dim, 1);
  t.has_runs = t.at.has_runs_of(static_cast<uint32_t>(std::max<uint64_t>(head_dim, 1)));
  return t;
}

template <typename Kernel>
void launch_rotary(c10::Device device, uint64_t head_dim, const char* function, Kernel kernel) {
  kernel.half_dim = head_dim / 2;
  kernel.wg = std::clamp<uint64_t>(head_dim, 1, most_work_items);
  kernel.total_rows = kernel.query.rows + kernel.key.rows;
  kernel.groups = std::min(kernel.total_rows, most_groups);
  launch(device, sycl::nd_range<1>({kernel.groups * kernel.wg}, {kernel.wg}), {"rope_xpu", function},
         [&](sycl::handler&) { return kernel; });
}

position_angles angles_of(const Tensor& position_ids, float theta, bool backward) {
  const auto iter = iterator_over({}, {position_ids});
  return {make_element_offset_calculator<1>(iter), position_ids.const_data_ptr<int64_t>(),
          std::max<uint64_t>(position_ids.size(1), 1), theta, backward};
}

template <typename Kernel>
void number_by_position(Kernel& kernel, int64_t q_heads, int64_t k_heads, const Tensor& position_ids) {
  kernel.query.rows_of_batch = std::max<int64_t>(q_heads * position_ids.size(1), 1);
  kernel.key.rows_of_batch = std::max<int64_t>(k_heads * position_ids.size(1), 1);
}

// Positions whose table pays: several rows share them, and it stays in the cache.
template <typename Kernel>
uint64_t table_positions(const Kernel& kernel, uint64_t seq_len, uint64_t head_dim) {
  constexpr uint64_t most_bytes = 8 << 20;
  const auto batches = [](const auto& t) { return (t.rows + t.rows_of_batch - 1) / t.rows_of_batch; };
  const uint64_t positions = std::max(batches(kernel.query), batches(kernel.key)) * seq_len;
  const bool pays = kernel.query.rows + kernel.key.rows >= 2 * positions;
  return last_finishes && pays && positions * head_dim * sizeof(float) <= most_bytes ? positions : 0;
}

bool have_dimensions(std::initializer_list<Tensor> tensors, int64_t dimensions) {
  return std::all_of(tensors.begin(), tensors.end(), [&](const Tensor& t) { return t.dim() == dimensions; });
}
bool has_pairs(const Tensor& t) { return t.size(-1) % 2 == 0; }

constexpr const char *not_4_dimensions = "The dimensions of all tensor should be 4",
                     *not_2_dimensions = "The dimensions of position_ids should be 2",
                     *odd_size = "The problem size should be divisible by 2",
                     *no_positions = "position_ids must not be empty";

}  // namespace

void apply_rotary_embedding_q_and_k(const Tensor& query, const Tensor& key, const Tensor& position_ids,
                                    const Tensor& query_out, const Tensor& key_out, float base, bool) {
  TORCH_CHECK(have_dimensions({query, key, query_out, key_out}, 4), not_4_dimensions);
  TORCH_CHECK(position_ids.dim() == 2, not_2_dimensions);
  TORCH_CHECK(has_pairs(query), odd_size);
  TORCH_CHECK(has_pairs(key), odd_size);
  TORCH_CHECK(position_ids.numel() > 0 || query.numel() + key.numel() == 0, no_positions);
  const auto query_iter = iterator_over({query_out}, {query}), key_iter = iterator_over({key_out}, {key});
  const int64_t head_dim = query.size(3);
  const float theta = std::pow(base, -2.0f / static_cast<float>(head_dim));
  with_value_type(
      query.scalar_type(),
      [&](auto type) {
        using T = decltype(type);
        apply_rotary_embedding_half_kernel_q_and_k<T, 2, unsigned int, false, OffsetCalculator> kernel{};
        kernel.query = rotary_tensor_of<T, 2>(query_iter, query, query_out, head_dim);
        kernel.key = rotary_tensor_of<T, 2>(key_iter, key, key_out, head_dim);
        number_by_position(kernel, query.size(1), key.size(1), position_ids);
        kernel.angles = angles_of(position_ids, theta, false);
        kernel.angles.table_positions = table_positions(kernel, position_ids.size(1), head_dim);
        launch_rotary(query.device(), head_dim, "apply_rotary_embedding_half_kernel_q_and_k", kernel);
      },
      operation);
}

void apply_rotary_embedding_q_or_k(const Tensor& input, const Tensor& position_ids, const Tensor& output, bool,
                                   bool backward) {
  TORCH_CHECK(have_dimensions({input, output}, 4), not_4_dimensions);
  TORCH_CHECK(position_ids.dim() == 2, not_2_dimensions);
  TORCH_CHECK(has_pairs(input), odd_size);
  TORCH_CHECK(position_ids.numel() > 0 || input.numel() == 0, no_positions);
  const auto iter = iterator_over({output}, {input});
  const int64_t head_dim = input.size(3);
  const float theta = std::exp2(-26.575424194335938f / static_cast<float>(head_dim));  // base 10000
  with_value_type(
      input.scalar_type(),
      [&](auto type) {
        using T = decltype(type);
        apply_rotary_embedding_half_kernel_q_or_k<T, 2, unsigned int, false, OffsetCalculator> kernel{};
        kernel.query = rotary_tensor_of<T, 2>(iter, input, output, head_dim);
        number_by_position(kernel, input.size(1), 0, position_ids);
        kernel.angles = angles_of(position_ids, theta, backward);
        kernel.angles.table_positions = table_positions(kernel, position_ids.size(1), head_dim);
        launch_rotary(input.device(), head_dim, "apply_rotary_embedding_half_kernel_q_or_k", kernel);
      },
      operation);
}

void apply_rotary_embedding_q_and_k_cache_freq(const Tensor& query, const Tensor& key, const Tensor& sin,
                                               const Tensor& cos, const Tensor& query_out, const Tensor& key_out,
                                               bool) {
  const auto all = {query, key, sin, cos, query_out, key_out};
  TORCH_CHECK(have_dimensions(all, query.dim()), "The dimensions of all tensor should be equal");
  TORCH_CHECK(std::all_of(all.begin(), all.end(), [&](const Tensor& t) { return t.size(-1) == query.size(-1); }),
              "The problem size of all tensor should be equal");
  TORCH_CHECK(has_pairs(query), odd_size);
  TORCH_CHECK(has_pairs(key), odd_size);
  const auto query_iter = iterator_over({query_out}, {query, sin, cos});
  const auto key_iter = iterator_over({key_out}, {key, sin, cos});
  const int64_t head_dim = query.size(-1);
  with_value_type(
      query.scalar_type(),
      [&](auto type) {
        using T = decltype(type);
        apply_rotary_embedding_half_kernel_cache_freq<T, 4, unsigned int, false, OffsetCalculator> kernel{};
        kernel.query = rotary_tensor_of<T, 4>(query_iter, query, query_out, head_dim);
        kernel.key = rotary_tensor_of<T, 4>(key_iter, key, key_out, head_dim);
        kernel.angles = {sin.const_data_ptr<T>(), cos.const_data_ptr<T>()};
        launch_rotary(query.device(), head_dim, "apply_rotary_embedding_half_kernel_cache_freq", kernel);
      },
      operation);
}

}  // namespace orrery
