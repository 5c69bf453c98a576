// y = W x for one input row, or for pairs of a few, the weight in its quantized form.
#pragma once

#include <algorithm>
#include <cstdint>

#include "includes/item.h"
#include "linear/launch.h"
#include "utils.h"

namespace orrery {

template <typename T>
struct row_arguments {
  uint64_t state_size = 0, output_size = 0;
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  const T* x = nullptr;
  T* y = nullptr;
  uint64_t n = 1;  // input rows
};

// A work-group owns R rows of W and K input rows, a work-item takes Format::run elements of each in a pass. All
// arithmetic is in T, the accumulator and the local memory too. With K = 2 the second index of a group is its pair of
// input rows; if their number is odd, the last pair's second row is computed like any other and not stored.
template <typename Format, typename T, int SG, int WG, int R, int K = 1>
struct row_kernel : row_arguments<T> {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<row_kernel> == 1;
  static constexpr int run = Format::run;
  static constexpr int runs_per_block = 64 / run;
  static constexpr int chunk = WG * run;
  static constexpr int inputs = run + (Format::has_offset ? 1 : 0);  // vectors of a pass: the terms, then their sum

  sycl::local_accessor<T, K> partial;  // R rows of WG for each input row

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    const uint64_t group = item.group(), first_row = K == 1 ? 0 : K * item.group(1);
    const size_t l = item.local_linear();
    const auto x = input_order<N>(item, first_row);
    simd<T, N> acc[K * R];
    if (this->state_size % 64 == 0) {
      add_row<N>(acc, x, place<true>(*this, group, l), l);
    } else {
      add_row<N>(acc, x, place<false>(*this, group, l), l);
    }
    const uint64_t live = std::min<uint64_t>(K, this->n - first_row);
    tree_sum<WG, K * R>(item, &partial[sycl::id<K>()], acc, [&](int i, T total) {
      const uint64_t k = i / R, row = R * group + i % R;
      if (k < live && row < this->output_size) this->y[(first_row + k) * this->output_size + row] = total;
    });
  }

 private:
  template <int N, typename Inputs, typename Place>
  void add_row(simd<T, N> (&acc)[K * R], Inputs x, const Place& at, size_t l) const {
    const uint64_t full = this->state_size / chunk;
    for (uint64_t t = 0; t < full; ++t, x.next_pass()) add_pass(acc, x, at, t);
    const auto some = tail_lanes<N>(l);
    if (!some.any()) return;
    simd<T, N> more[K * R];
    ORRERY_UNROLL for (int i = 0; i < K * R; ++i) more[i] = acc[i];
    add_pass(more, x, at, full);
    ORRERY_UNROLL for (int i = 0; i < K * R; ++i) acc[i] = select(some, more[i], acc[i]);
  }

  // Work-items whose run lies in the part of the row that does not fill a pass.
  template <int N>
  mask<N> tail_lanes(size_t l) const {
    return mask<N>::first(static_cast<int64_t>((this->state_size / run) % WG) - static_cast<int64_t>(l));
  }

  static constexpr uint64_t input_index(uint64_t c, int k) {
    const uint64_t o = c % 64;
    return c - o + Format::first_element(static_cast<int>(o)) + Format::element(k);
  }

  // The sum of a run's inputs, for formats with an offset: one after another for a single row, by twos for a pair.
  template <typename V, typename Get>
  static V sum_of_inputs(Get get) {
    V sum = K == 1 ? get(0) : get(0) + get(1);
    ORRERY_UNROLL for (int k = K; k < run; k += K) sum += K == 1 ? get(k) : get(k) + get(k + 1);
    return sum;
  }

  // The inputs of a pass as the host keeps them: [pass][input row][term][work-item], from one lane on.
  template <int N>
  struct arranged_inputs {
    const register_type<T>* at;
    simd<T, N> operator()(int row, int k) const {
      return simd<T, N>::load_register_values(at + (row * inputs + k) * WG);
    }
    simd<T, 1> of_lane(int row, int k, int lane) const {
      return simd<T, 1>::load_register_values(at + (row * inputs + k) * WG + lane);
    }
    void next_pass() { at += K * inputs * WG; }
  };
  // The inputs of one work-item, read from x.
  struct own_inputs {
    const T* x;
    uint64_t state_size, c;
    simd<T, 1> operator()(int row, int k) const {
      const T* p = x + row * state_size;
      const auto get = [&](int i) { return simd<T, 1>::load(p + input_index(c, i)); };
      return k < run ? get(k) : sum_of_inputs<simd<T, 1>>(get);
    }
    simd<T, 1> of_lane(int row, int k, int) const { return (*this)(row, k); }
    void next_pass() { c += chunk; }
  };

  // The order in which runs meet the inputs is the same for every group, so the host makes it once a launch and thread;
  // a GPU's work-item reads x itself.
  template <int N, typename Item>
  auto input_order(const Item& item, uint64_t first_row) const {
    const size_t l = item.local_linear();
    if constexpr (N == 1) {
      return own_inputs{this->x + first_row * this->state_size, this->state_size, run * l};
    } else {
      const uint64_t passes = (this->state_size + chunk - 1) / chunk, pairs = (this->n + K - 1) / K;
      const uint64_t size = passes * K * inputs * WG;
      const register_type<T>* all =
          item.template shared_by_launch<register_type<T>>(pairs * size, [&](register_type<T>* to) {
            for (uint64_t row = 0; row < pairs * K; row += K) {
              for (uint64_t t = 0; t < passes; ++t) {
                for (uint64_t k = 0; k < K; ++k, to += inputs * WG) arrange(to, row + k, t);
              }
            }
          });
      return arranged_inputs<N>{all + first_row / K * size + l};
    }
  }

  void arrange(register_type<T>* to, uint64_t row, uint64_t t) const {
    const uint64_t left = row < this->n ? (this->state_size - t * chunk) / run : 0;
    const int items = static_cast<int>(std::min<uint64_t>(left, WG));
    const T* x = this->x + row * this->state_size;
    for (int k = 0; k < run; ++k) {
      for (int l = 0; l < items; ++l) {
        to[k * WG + l] = static_cast<register_type<T>>(x[input_index(t * chunk + run * l, k)]);
      }
      for (int l = items; l < WG; ++l) to[k * WG + l] = 0;
    }
    if constexpr (Format::has_offset) {
      using V = simd<T, 16>;
      for (int l = 0; l < WG; l += V::lanes) {
        const V sum = sum_of_inputs<V>([&](int k) { return V::load_register_values(to + k * WG + l); });
        sum.store_register_values(to + run * WG + l);
      }
    }
  }

  // Where a strand's quants and scales lie. If rows begin on block boundaries, so do strands, and the lanes of a strand
  // read one stretch of bytes; else each lane has its own block, found as if rows did.
  template <bool RowsOnBlocks>
  struct place {
    const uint8_t *weight, *scales;
    uint32_t scale_offset;
    uint64_t first, row_blocks;  // first: the element that lane 0 starts from; blocks are counted in 32 bits
    int l;

    place(const row_kernel& k, uint64_t group, size_t l)
        : weight(k.weight),
          scales(k.weight + k.scale_offset),
          scale_offset(k.scale_offset),
          first(R * group * k.state_size + run * l),
          row_blocks(k.state_size / 64),
          l(static_cast<int>(l)) {}

    uint32_t block(uint64_t t, int r, int lane = 0) const {
      return static_cast<uint32_t>((first + run * lane) / 64) +
             static_cast<uint32_t>(t * (chunk / 64) + r * row_blocks);
    }
    template <int N>
    void load(uint64_t t, int r, simd<uint32_t, N> (&word)[Format::words], int lane = 0) const {
      Format::load(weight, scale_offset, block(t, r, lane), (l + lane) % runs_per_block * run, word);
    }
    // The row that the next group has in this one's place.
    template <int N>
    ORRERY_INLINE void prefetch_next(uint64_t t, int r) const {
      Format::template prefetch_codes<N>(weight, scale_offset, block(t, r) + R * row_blocks, l % runs_per_block * run);
    }
    const uint8_t* scale(uint64_t t, int r, int lane = 0) const {
      return scales + uint64_t(block(t, r, lane)) * Format::scale_bytes;
    }
  };

  // Adds the run's part to the accumulators of `Rows` rows of W, which lie R apart for the input rows. The sums grow
  // side by side, since each is one chain of dependent additions: 10% faster in float and 25% in half than one after
  // another.
  template <int N, int Rows, typename Input>
  static void add_runs(simd<T, N>* acc, const Input& in, const simd<uint32_t, N> (&word)[Rows][Format::words],
                       const uint8_t* const (&scales)[Rows]) {
    simd<T, N> s[K][Rows];
    ORRERY_UNROLL for (int i = 0; i < run; ++i) {
      simd<T, N> x[K];
      ORRERY_UNROLL for (int k = 0; k < K; ++k) x[k] = in(k, i);
      ORRERY_UNROLL for (int r = 0; r < Rows; ++r) {
        const auto value = Format::template term<T>(word[r], i);
        ORRERY_UNROLL for (int k = 0; k < K; ++k) {
          const auto product = x[k] * value;
          s[k][r] = i == 0 ? product : s[k][r] + product;
        }
      }
    }
    ORRERY_UNROLL for (int k = 0; k < K; ++k) {
      ORRERY_UNROLL for (int r = 0; r < Rows; ++r) {
        if constexpr (Format::has_offset) {
          acc[k * R + r] += Format::template scaled<T, N, runs_per_block>(s[k][r], in(k, run), scales[r]);
        } else {
          acc[k * R + r] += Format::template scaled<T, N, runs_per_block>(s[k][r], scales[r]);
        }
      }
    }
  }

  template <int N, typename Inputs>
  void add_pass(simd<T, N> (&acc)[K * R], const Inputs& x, const place<true>& at, uint64_t t) const {
    constexpr int together = R % 2 == 0 ? 2 : 1;
    ORRERY_UNROLL for (int r = 0; r < R; r += together) {
      simd<uint32_t, N> word[together][Format::words];
      const uint8_t* scales[together];
      ORRERY_UNROLL for (int i = 0; i < together; ++i) {
        at.template prefetch_next<N>(t, r + i);
        at.load(t, r + i, word[i]);
        scales[i] = at.scale(t, r + i);
      }
      add_runs<N, together>(acc + r, x, word, scales);
    }
  }
  // Rare, and not worth a gather of its own: one lane after another.
  template <int N, typename Inputs>
  void add_pass(simd<T, N> (&acc)[K * R], const Inputs& x, const place<false>& at, uint64_t t) const {
    for (int lane = 0; lane < N; ++lane) {
      for (int r = 0; r < R; ++r) {
        simd<uint32_t, 1> word[1][Format::words];
        at.load(t, r, word[0], lane);
        simd<T, 1> sum[K * R];
        for (int k = 0; k < K; ++k) sum[k * R].set(0, acc[k * R + r][lane]);
        add_runs<1, 1>(sum, [&](int row, int k) { return x.of_lane(row, k, lane); }, word, {at.scale(t, r, lane)});
        for (int k = 0; k < K; ++k) acc[k * R + r].set(lane, sum[k * R][0]);
      }
    }
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
    tree_sum<WG, 1>(item, &partial[0], acc, [&](int, T total) { this->y[row] = total; });
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

template <typename T>
row_arguments<T> arguments_of(const row_launch& a) {
  return {a.state_size, a.output_size, a.weight, a.scale_offset, static_cast<const T*>(a.x), static_cast<T*>(a.y), a.n};
}

// Launches the instance of `Kernel` that `T`, the rows a group R and the arguments ask for.
template <typename Kernel, typename T>
void launch_row_kernel(const row_launch& a, int work_group, int rows, const char* function) {
  const size_t groups = (a.output_size + rows - 1) / rows;
  launch(a.device, sycl::nd_range<1>(groups * work_group, work_group), {"linear_xpu_kernel", function},
         [&](sycl::handler& h) {
           Kernel kernel;
           static_cast<row_arguments<T>&>(kernel) = arguments_of<T>(a);
           kernel.partial = sycl::local_accessor<T>(sycl::range<1>(rows * work_group), h);
           return kernel;
         });
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
