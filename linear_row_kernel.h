// y = W x for one input row, the weight in its quantized form.
#pragma once

#include <cstdint>

#include "includes/item.h"
#include "linear_kernels.h"
#include "utils.h"

namespace orrery {

template <typename T>
struct row_arguments {
  uint64_t state_size = 0, output_size = 0;
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  const T* x = nullptr;
  T* y = nullptr;
};

// A work-group owns R rows of W, a work-item takes Format::run elements of the row in a pass. All arithmetic is in T,
// the accumulator and the local memory too.
template <typename Format, typename T, int SG, int WG, int R>
struct row_kernel : row_arguments<T> {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<row_kernel> == 1;
  static constexpr int run = Format::run;
  static constexpr int runs_per_block = 64 / run;
  static constexpr int chunk = WG * run;
  static constexpr int inputs = run + (Format::has_offset ? 1 : 0);  // vectors of a pass: the terms, then their sum

  sycl::local_accessor<T> partial;  // R rows of WG

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    const size_t l = item.local_linear();
    const uint64_t group = item.group();
    const auto x = input_order<N>(item);
    simd<T, N> acc[R];
    const uint64_t full = this->state_size / chunk;
    if (this->state_size % 64 == 0) {
      const place<true> at(*this, group, l);
      for (uint64_t t = 0; t < full; ++t) pass<N>(acc, x, at, t, l);
      if (const auto some = tail_lanes<N>(l); some.any()) masked_pass<N>(acc, x, at, full, l, some);
    } else {
      const place<false> at(*this, group, l);
      for (uint64_t t = 0; t < full; ++t) pass<N>(acc, x, at, t, l);
      if (const auto some = tail_lanes<N>(l); some.any()) masked_pass<N>(acc, x, at, full, l, some);
    }
    tree_sum<WG, R>(item, partial.get_pointer(), acc, [&](int r, T total) {
      if (const uint64_t row = R * group + r; row < this->output_size) this->y[row] = total;
    });
  }

 private:
  // Work-items whose run lies in the part of the row that does not fill a pass.
  template <int N>
  mask<N> tail_lanes(size_t l) const {
    return mask<N>::first(static_cast<int64_t>((this->state_size / run) % WG) - static_cast<int64_t>(l));
  }

  static constexpr uint64_t input_index(uint64_t c, int k) {
    const uint64_t o = c % 64;
    return c - o + Format::first_element(static_cast<int>(o)) + Format::element(k);
  }

  // The row in the order in which runs meet it, [pass][term][work-item], is the same for every group, so the host makes
  // it once a launch and thread; a GPU's work-item reads x itself.
  template <int N, typename Item>
  auto input_order(const Item& item) const {
    if constexpr (N == 1) {
      return this->x;
    } else {
      const uint64_t passes = (this->state_size + chunk - 1) / chunk;
      return item.template once_a_launch<held_t<T>>(passes * inputs * WG, [&](held_t<T>* to) { arrange(to, passes); });
    }
  }

  void arrange(held_t<T>* to, uint64_t passes) const {
    for (uint64_t t = 0; t < passes; ++t, to += inputs * WG) {
      const uint64_t left = this->state_size - t * chunk;
      const int items = left / run < WG ? static_cast<int>(left / run) : WG;
      for (int k = 0; k < run; ++k) {
        for (int l = 0; l < items; ++l) {
          to[k * WG + l] = static_cast<held_t<T>>(this->x[input_index(t * chunk + run * l, k)]);
        }
        for (int l = items; l < WG; ++l) to[k * WG + l] = 0;
      }
      if constexpr (Format::has_offset) {
        for (int l = 0; l < WG; l += simd<T, 16>::lanes) {
          auto sum = simd<T, 16>::load_held(to + l);
          for (int k = 1; k < run; ++k) sum += simd<T, 16>::load_held(to + k * WG + l);
          std::memcpy(to + run * WG + l, &sum.v, sizeof sum.v);
        }
      }
    }
  }

  template <int N>
  void inputs_of_pass(const held_t<T>* x, uint64_t t, size_t l, simd<T, N> (&in)[inputs]) const requires(N > 1) {
    const held_t<T>* p = x + t * inputs * WG + l;
    ORRERY_UNROLL for (int k = 0; k < inputs; ++k) in[k] = simd<T, N>::load_held(p + k * WG);
  }
  template <int N>
  void inputs_of_pass(const T* x, uint64_t t, size_t l, simd<T, N> (&in)[inputs]) const requires(N == 1) {
    ORRERY_UNROLL for (int k = 0; k < run; ++k) in[k] = simd<T, 1>::load(x + input_index(t * chunk + run * l, k));
    if constexpr (Format::has_offset) {
      in[run] = in[0];
      ORRERY_UNROLL for (int k = 1; k < run; ++k) in[run] += in[k];
    }
  }

  // Where a strand's quants and scales lie. If rows begin on block boundaries, so do strands, and the lanes of a strand
  // read one stretch of bytes; else each lane has its own block, found as if rows did.
  template <bool RowsOnBlocks>
  struct place {
    const uint8_t *weight, *scales;
    uint64_t first, row_blocks;  // first: the element that lane 0 starts from; blocks are counted in 32 bits
    int l;

    place(const row_kernel& k, uint64_t group, size_t l)
        : weight(k.weight),
          scales(k.weight + k.scale_offset),
          first(R * group * k.state_size + run * l),
          row_blocks(k.state_size / 64),
          l(static_cast<int>(l)) {}

    uint32_t block(uint64_t t, int r, int lane = 0) const {
      return static_cast<uint32_t>((first + run * lane) / 64) +
             static_cast<uint32_t>(t * (chunk / 64) + r * row_blocks);
    }
    const uint8_t* quants(uint64_t t, int r, int lane = 0) const {
      constexpr int run_bytes = Format::quant_bytes / runs_per_block;
      return weight + uint64_t(block(t, r, lane)) * Format::quant_bytes + (l + lane) % runs_per_block * run_bytes;
    }
    const uint8_t* scale(uint64_t t, int r, int lane = 0) const {
      return scales + uint64_t(block(t, r, lane)) * Format::scale_bytes;
    }
  };

  // Adds the run's part to `Rows` accumulators. The rows' sums grow side by side, since each
  // is one chain of dependent additions: 10% faster in float and 25% in half than row after row.
  template <int N, int Rows>
  static void add_runs(simd<T, N>* acc, const simd<T, N> (&in)[inputs],
                       const simd<uint32_t, N> (&word)[Rows][Format::words], const uint8_t* const (&scales)[Rows]) {
    simd<T, N> s[Rows];
    ORRERY_UNROLL for (int r = 0; r < Rows; ++r) s[r] = in[0] * Format::template term<T>(word[r], 0);
    ORRERY_UNROLL for (int k = 1; k < run; ++k) {
      ORRERY_UNROLL for (int r = 0; r < Rows; ++r) s[r] += in[k] * Format::template term<T>(word[r], k);
    }
    ORRERY_UNROLL for (int r = 0; r < Rows; ++r) {
      if constexpr (Format::has_offset) {
        acc[r] += Format::template scaled<T, N, runs_per_block>(s[r], in[run], scales[r]);
      } else {
        acc[r] += Format::template scaled<T, N, runs_per_block>(s[r], scales[r]);
      }
    }
  }

  template <int N>
  void add_pass(simd<T, N> (&acc)[R], const simd<T, N> (&in)[inputs], const place<true>& at, uint64_t t) const {
    constexpr int together = R % 2 == 0 ? 2 : 1;
    ORRERY_UNROLL for (int r = 0; r < R; r += together) {
      simd<uint32_t, N> word[together][Format::words];
      const uint8_t* scales[together];
      ORRERY_UNROLL for (int i = 0; i < together; ++i) {
        const uint8_t* quants = at.quants(t, r + i);
        prefetch<N * Format::quant_bytes / runs_per_block>(quants + R * at.row_blocks * Format::quant_bytes);
        load_words(quants, word[i]);
        scales[i] = at.scale(t, r + i);
      }
      add_runs<N, together>(acc + r, in, word, scales);
    }
  }
  // Rare, and not worth a gather of its own: one lane after another.
  template <int N>
  void add_pass(simd<T, N> (&acc)[R], const simd<T, N> (&in)[inputs], const place<false>& at, uint64_t t) const {
    for (int lane = 0; lane < N; ++lane) {
      simd<T, 1> own[inputs];
      for (int k = 0; k < inputs; ++k) own[k].set(0, in[k][lane]);
      for (int r = 0; r < R; ++r) {
        simd<uint32_t, 1> word[1][Format::words];
        load_words(at.quants(t, r, lane), word[0]);
        simd<T, 1> sum(acc[r][lane]);
        add_runs<1, 1>(&sum, own, word, {at.scale(t, r, lane)});
        acc[r].set(lane, sum[0]);
      }
    }
  }

  template <int N, typename X, typename Place>
  void pass(simd<T, N> (&acc)[R], const X* x, const Place& at, uint64_t t, size_t l) const {
    simd<T, N> in[inputs];  // once for all R rows
    inputs_of_pass<N>(x, t, l, in);
    add_pass(acc, in, at, t);
  }
  template <int N, typename X, typename Place>
  void masked_pass(simd<T, N> (&acc)[R], const X* x, const Place& at, uint64_t t, size_t l, mask<N> some) const {
    simd<T, N> more[R];
    ORRERY_UNROLL for (int r = 0; r < R; ++r) more[r] = acc[r];
    pass(more, x, at, t, l);
    ORRERY_UNROLL for (int r = 0; r < R; ++r) acc[r] = select(some, more[r], acc[r]);
  }
};

// q5_0 and q5_1: a work-group owns one row, a work-item one byte of a block and so elements j and j + 32. There is no
// guard at the end: with 64 work-items and an odd number of blocks the last pass reads the next row's first block.
template <typename Format, typename T, int SG, int WG>
struct block_row_kernel : row_arguments<T> {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<block_row_kernel> == 1;
  static constexpr int blocks_per_pass = WG / 32;

  sycl::local_accessor<T> partial;  // WG

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    const uint64_t l = item.local_linear(), row = item.group();
    const uint64_t passes = (this->state_size / (WG == 64 ? 64 : 32) + 1) / 2;
    const int j = static_cast<int>(l % 32);
    const T* x = this->x + (2 * l & ~uint64_t(63)) + j;
    simd<T, N> acc[1];
    for (uint64_t t = 0; t < passes; ++t, x += 64 * blocks_per_pass) {
      simd<T, N> low, high;
      if (this->state_size % 64 == 0) {
        values<N>(block(row, l, t), j, low, high);
      } else {
        for (int lane = 0; lane < N; ++lane) {
          simd<T, 1> a, b;
          values<1>(block(row, l + lane, t), j + lane, a, b);
          low.set(lane, a[0]);
          high.set(lane, b[0]);
        }
      }
      acc[0] += low * simd<T, N>::load(x) + high * simd<T, N>::load(x + 32);
    }
    tree_sum<WG, 1>(item, partial.get_pointer(), acc, [&](int, T total) { this->y[row] = total; });
  }

 private:
  const uint8_t* block(uint64_t row, uint64_t l, uint64_t t) const {
    return this->weight + ((row * this->state_size + 2 * l) / 64 + t * blocks_per_pass) * Format::bytes;
  }

  template <int N>
  static void values(const uint8_t* block, int j, simd<T, N>& low, simd<T, N>& high) {
    simd<int32_t, N> a, b;
    Format::template codes<N>(block, j, a, b);
    low = Format::template value<T>(a, block);
    high = Format::template value<T>(b, block);
  }
};

// Launches the instance of `Kernel` that `T`, the rows a group R and the arguments ask for.
template <typename Kernel, typename T>
void launch_row_kernel(const row_launch& a, int work_group, int rows, const char* function) {
  const size_t groups = (a.output_size + rows - 1) / rows;
  const row_arguments<T> arguments{
      a.state_size, a.output_size, a.weight, a.scale_offset, static_cast<const T*>(a.x), static_cast<T*>(a.y)};
  launch(a.device, sycl::nd_range<1>(groups * work_group, work_group), {"linear_xpu_kernel", function},
         [&](sycl::handler& h) {
           Kernel kernel;
           static_cast<row_arguments<T>&>(kernel) = arguments;
           kernel.partial = sycl::local_accessor<T>(sycl::range<1>(rows * work_group), h);
           return kernel;
         });
}

// Calls `f` with a value of the input's type; the dispatch let no other type through.
template <typename F>
void with_value_type(c10::ScalarType type, F f) {
  switch (type) {
    case c10::ScalarType::Half:
      return f(c10::Half());
    case c10::ScalarType::Float:
      return f(float());
    case c10::ScalarType::Double:
      return f(double());
    default:
      return f(c10::BFloat16());
  }
}

// The instances of a family with sub-groups of 16 and 32, `Rows` rows a group.
template <template <typename, int, int> typename Kernel, int Rows>
void launch_rows(const row_shape& shape, c10::ScalarType type, const row_launch& a, const char* function) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    if (shape.sub_group == 32) {
      launch_row_kernel<Kernel<T, 32, 64>, T>(a, 64, Rows, function);
    } else {
      launch_row_kernel<Kernel<T, 16, 32>, T>(a, 32, Rows, function);
    }
  });
}

}  // namespace orrery
