// y = W x for one input row, or for pairs of a few, the weight in its quantized form.
#pragma once

#include <algorithm>
#include <cstdint>

#include "includes/codes.h"
#include "includes/item.h"
#include "linear/launch.h"

namespace orrery {

template <typename T>
struct row_arguments {
  uint64_t state_size = 0, output_size = 0;
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  const T* x = nullptr;
  T* y = nullptr;
  uint64_t n = 1;  // input rows

  void take(const linear_decision& way, const linear_operands& on) {
    *this = {
        on.state_size, on.output_size, on.weight, way.scale_offset, static_cast<const T*>(on.x), static_cast<T*>(on.y),
        on.n};
  }
};

// R rows of a weight: row `first` and every `step`-th one behind it. The next group's begin `next` rows further on.
struct weight_rows {
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  uint64_t first = 0, step = 1, next = 0;
};

// Products of R rows of a weight with K input rows, summed over a row by the WG work-items of a group: a work-item
// takes Format::run elements of each in a pass. All arithmetic is in T. Which rows, and what becomes of the sums, is
// the kernel's.
template <typename Format, typename T, int WG, int R, int K = 1>
struct row_sums {
  static constexpr int run = Format::run;
  static constexpr int runs_per_block = 64 / run;
  static constexpr int chunk = WG * run;
  static constexpr int inputs = run + (Format::has_offset ? 1 : 0);  // vectors of a pass: the terms, then their sum

  uint64_t state_size = 0;
  const T* x = nullptr;
  uint64_t n = 1;  // input rows

  // Adds an item's share of the products to acc[k * R + r], for input row k and row r of the weight. `in` comes from
  // input_order.
  template <typename Item, int N, typename Inputs>
  ORRERY_INLINE void add(const Item& item, simd<T, N> (&acc)[K * R], const Inputs& in, const weight_rows& rows) const {
    const size_t l = item.local_linear();
    if (state_size % 64 == 0) {
      add_row<N>(acc, in, place<true>(*this, rows, l), l);
    } else {
      add_row<N>(acc, in, place<false>(*this, rows, l), l);
    }
  }

  // The order in which runs meet the inputs is the same for every group, so the host makes it once per launch and
  // thread; a GPU's work-item reads x itself.
  template <typename Item>
  auto input_order(const Item& item, uint64_t first_row = 0) const {
    constexpr int N = Item::lanes;
    const size_t l = item.local_linear();
    if constexpr (N == 1) {
      return own_inputs{x + first_row * state_size, state_size, run * l};
    } else {
      const register_type<T>* all = item.template shared_by_launch<register_type<T>>(
          input_count(), [&](register_type<T>* to) { arrange_inputs(to); });
      return input_order(item, all, first_row);
    }
  }
  // The same in parts, for a kernel whose groups share more than the inputs: a launch shares values in one place.
  uint64_t input_count() const { return (n + K - 1) / K * pair_inputs(); }
  void arrange_inputs(register_type<T>* to) const {
    for (uint64_t row = 0; row < n; row += K) {
      for (uint64_t t = 0; t < passes(); ++t) {
        for (uint64_t k = 0; k < K; ++k, to += inputs * WG) arrange(to, row + k, t);
      }
    }
  }
  template <typename Item>
  auto input_order(const Item& item, const register_type<T>* all, uint64_t first_row = 0) const {
    return arranged_inputs<Item::lanes>{all + first_row / K * pair_inputs() + item.local_linear()};
  }

 private:
  uint64_t passes() const { return (state_size + chunk - 1) / chunk; }
  uint64_t pair_inputs() const { return passes() * K * inputs * WG; }

  // Sums are addressed by constants alone, here and below: addressed by loops that are unrolled later, GCC keeps them
  // in memory (5% of a q4_0 product for pairs, 10% for one row).
  template <int N, typename Inputs, typename Place>
  ORRERY_INLINE void add_row(simd<T, N> (&acc)[K * R], Inputs x, const Place& at, size_t l) const {
    simd<T, N> sum[K * R];
    for_each_constant<K * R>([&](auto i) ORRERY_INLINE { sum[i] = acc[i]; });
    const uint64_t full = state_size / chunk;
    for (uint64_t t = 0; t < full; ++t, x.next_pass()) add_pass(sum, x, at, t);
    if (const auto some = tail_lanes<N>(l); some.any()) {
      simd<T, N> more[K * R];
      for_each_constant<K * R>([&](auto i) ORRERY_INLINE { more[i] = sum[i]; });
      add_pass(more, x, at, full);
      for_each_constant<K * R>([&](auto i) ORRERY_INLINE { sum[i] = select(some, more[i], sum[i]); });
    }
    for_each_constant<K * R>([&](auto i) ORRERY_INLINE { acc[i] = sum[i]; });
  }

  // Work-items whose run lies in the part of the row that does not fill a pass.
  template <int N>
  mask<N> tail_lanes(size_t l) const {
    return mask<N>::first(static_cast<int64_t>((state_size / run) % WG) - static_cast<int64_t>(l));
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

  void arrange(register_type<T>* to, uint64_t row, uint64_t t) const {
    const uint64_t left = row < n ? (state_size - t * chunk) / run : 0;
    const int items = static_cast<int>(std::min<uint64_t>(left, WG));
    const T* from = x + row * state_size;
    for (int k = 0; k < run; ++k) {
      for (int l = 0; l < items; ++l) {
        to[k * WG + l] = static_cast<register_type<T>>(from[input_index(t * chunk + run * l, k)]);
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
    uint64_t first;                     // the element that lane 0 starts from
    uint64_t step_blocks, next_blocks;  // blocks are counted in 32 bits
    int l;

    place(const row_sums& sums, const weight_rows& rows, size_t l)
        : weight(rows.weight),
          scales(rows.weight + rows.scale_offset),
          scale_offset(rows.scale_offset),
          first(rows.first * sums.state_size + run * l),
          step_blocks(sums.state_size / 64 * rows.step),
          next_blocks(sums.state_size / 64 * rows.next),
          l(static_cast<int>(l)) {}

    uint32_t block(uint64_t t, int r, int lane = 0) const {
      return static_cast<uint32_t>((first + run * lane) / 64) +
             static_cast<uint32_t>(t * (chunk / 64) + r * step_blocks);
    }
    template <int N>
    void load(uint64_t t, int r, simd<uint32_t, N> (&word)[Format::words], int lane = 0) const {
      Format::load(weight, scale_offset, block(t, r, lane), (l + lane) % runs_per_block * run, word);
    }
    // The row that the next group has in this one's place.
    template <int N>
    ORRERY_INLINE void prefetch_next(uint64_t t, int r) const {
      Format::template prefetch_codes<N>(weight, scale_offset, block(t, r) + next_blocks, l % runs_per_block * run);
    }
    const uint8_t* scale(uint64_t t, int r, int lane = 0) const {
      return scales + uint64_t(block(t, r, lane)) * Format::scale_bytes;
    }
  };

  // Adds the run's part to the sums of rows First to First + Rows - 1 of W. The chains grow side by side, since each is
  // one of dependent additions: 10% faster in float and 25% in half than one after another.
  template <int First, int N, int Rows, int Sums, typename Input>
  ORRERY_INLINE static void add_runs(simd<T, N> (&acc)[Sums], const Input& in,
                                     const simd<uint32_t, N> (&word)[Rows][Format::words],
                                     const uint8_t* const (&scales)[Rows]) {
    constexpr int stride = Sums / K;  // from an input row to the next
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
    for_each_constant<K * Rows>([&](auto i) ORRERY_INLINE {
      constexpr int k = i / Rows, r = i % Rows;
      if constexpr (Format::has_offset) {
        acc[k * stride + First + r] += Format::template scaled<T, N, runs_per_block>(s[k][r], in(k, run), scales[r]);
      } else {
        acc[k * stride + First + r] += Format::template scaled<T, N, runs_per_block>(s[k][r], scales[r]);
      }
    });
  }

  template <int N, typename Inputs>
  ORRERY_INLINE void add_pass(simd<T, N> (&acc)[K * R], const Inputs& x, const place<true>& at, uint64_t t) const {
    constexpr int together = R % 2 == 0 ? 2 : 1;
    for_each_constant<R / together>([&](auto i) ORRERY_INLINE {
      constexpr int r = i * together;
      simd<uint32_t, N> word[together][Format::words];
      const uint8_t* scales[together];
      ORRERY_UNROLL for (int i = 0; i < together; ++i) {
        at.template prefetch_next<N>(t, r + i);
        at.load(t, r + i, word[i]);
        scales[i] = at.scale(t, r + i);
      }
      add_runs<r>(acc, x, word, scales);
    });
  }
  // Rare, and not worth a gather of its own: one lane after another.
  template <int N, typename Inputs>
  void add_pass(simd<T, N> (&acc)[K * R], const Inputs& x, const place<false>& at, uint64_t t) const {
    for (int lane = 0; lane < N; ++lane) {
      for (int r = 0; r < R; ++r) {
        simd<uint32_t, 1> word[1][Format::words];
        at.load(t, r, word[0], lane);
        simd<T, 1> sum[K];
        for (int k = 0; k < K; ++k) sum[k].set(0, acc[k * R + r][lane]);
        add_runs<0>(sum, [&](int row, int k) { return x.of_lane(row, k, lane); }, word, {at.scale(t, r, lane)});
        for (int k = 0; k < K; ++k) acc[k * R + r].set(lane, sum[k][0]);
      }
    }
  }
};

// y = W x: a work-group owns R rows of W and K input rows. With K = 2 the second index of a group is its pair of input
// rows; if their number is odd, the last pair's second row is computed like any other and not stored.
template <typename Format, typename T, int SG, int WG, int R, int K = 1>
struct row_kernel : row_arguments<T> {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<row_kernel> == 1;
  static constexpr int dimensions = K;

  sycl::local_accessor<T, K> partial;  // R rows of WG for each input row

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler& h) {
    this->take(way, on);
    constexpr size_t row = R * WG, sizes[] = {K == 1 ? row : K, row};
    partial = sycl::local_accessor<T, K>(range_of<K>(sizes), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t first = R * item.group(), first_input = K == 1 ? 0 : K * item.group(1);
    const row_sums<Format, T, WG, R, K> sums{this->state_size, this->x, this->n};
    simd<T, Item::lanes> acc[K * R];
    sums.add(item, acc, sums.input_order(item, first_input),
             {.weight = this->weight, .scale_offset = this->scale_offset, .first = first, .next = R});
    const uint64_t live = std::min<uint64_t>(K, this->n - first_input);
    tree_sum<WG, K * R>(item, &partial[sycl::id<K>()], acc, [&](int i, T total) {
      const uint64_t k = i / R, row = first + i % R;
      if (k < live && row < this->output_size) this->y[(first_input + k) * this->output_size + row] = total;
    });
  }
};

// q5_0 and q5_1: a work-group owns one row, a work-item one byte of a block and so elements j and j + 32. There is no
// guard at the end: with 64 work-items and an odd number of blocks the last pass reads the next row's first block.
template <typename Format, typename T, int SG, int WG>
struct block_row_kernel : row_arguments<T> {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = lanes_of<block_row_kernel> == 1;
  static constexpr int dimensions = 1;
  static constexpr int blocks_per_pass = WG / 32;

  sycl::local_accessor<T> partial;  // WG

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler& h) {
    this->take(way, on);
    partial = sycl::local_accessor<T>(sycl::range<1>(WG), h);
  }

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

}  // namespace orrery
