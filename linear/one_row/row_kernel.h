// y = W x for one input row or pairs of input rows, with a quantized weight.
#pragma once

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <type_traits>

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

// R rows of a weight, `step` apart, from row `first` on. Those of the next work-group start `next` rows further on.
struct weight_rows {
  const uint8_t* weight = nullptr;
  uint32_t scale_offset = 0;
  uint64_t first = 0, step = 1, next = 0;
};

// Dot products of R rows of a weight with K input rows, by the WG work-items of a group: in a pass, a work-item takes
// Format::run elements of each row, and the sums of the work-items are added by the halving tree. All arithmetic is in
// T. The kernel chooses the rows and uses the sums.
template <typename Format, typename T, int WG, int R, int K = 1>
struct row_sums {
  static constexpr int run = Format::run;
  static constexpr int runs_per_block = 64 / run;
  static constexpr int chunk = WG * run;
  static constexpr int inputs = run + (Format::has_offset ? 1 : 0);  // vectors per pass: the inputs, then their sum
  // Rows of the weight that share a vector, side by side: two where the machine computes in half, so that the codes of
  // both fill its 16-bit lanes. Only the vector form, which has a machine, is ever a pair.
  static constexpr int beside = sizeof(register_type<T>) == 2 && R % 2 == 0 ? 2 : 1;

  uint64_t state_size = 0;
  const T* x = nullptr;
  uint64_t n = 1;  // input rows

  // Adds an item's products to acc[k * R + r], for input row k and row r of the weight. `in` comes from input_order.
  template <typename Item, int N, typename Inputs>
  ORRERY_INLINE void add(const Item& item, simd<T, N> (&acc)[K * R], const Inputs& in, const weight_rows& rows) const {
    const size_t l = item.local_linear();
    if (state_size % 64 == 0) {
      add_row<N>(acc, in, place<true>(*this, rows, l), l);
    } else {
      add_row<N>(acc, in, place<false>(*this, rows, l), l);
    }
  }

  // The inputs in the order in which runs need them. It is the same for every work-group, so the host arranges them
  // once per launch and thread; on a GPU a work-item reads x itself.
  template <typename Item>
  auto input_order(const Item& item, uint64_t first_row = 0) const {
    constexpr int N = Item::lanes;
    const size_t l = item.local_linear();
    if constexpr (N == 1) {
      return own_inputs{x + first_row * state_size, state_size, run * l};
    } else {
      return arranged_inputs{shared_inputs(item) + first_row / K * pair_inputs() + beside * l};
    }
  }
  template <typename Item>
  const register_type<T>* shared_inputs(const Item& item) const {
    return item.template shared_by_launch<register_type<T>>(input_count(),
                                                            [&](register_type<T>* to) { arrange_inputs(to); });
  }
  // The same in parts, for a kernel that shares more than the inputs: a kernel may call shared_by_launch in one place
  // only.
  uint64_t input_count() const { return by_products() ? state_size * 16 : (n + K - 1) / K * pair_inputs(); }
  void arrange_inputs(register_type<T>* to) const {
    if constexpr (may_use_products) {
      if (by_products()) return arrange_products(to);
    }
    for (uint64_t row = 0; row < n; row += K) {
      for (uint64_t t = 0; t < passes(); ++t) {
        for (uint64_t k = 0; k < K; ++k, to += inputs * places) arrange(to, row + k, t);
      }
    }
  }

  // ---- Whole groups, on the host ----

  static constexpr int most_rows = 16;
  static constexpr int groups_at_once = most_rows / R;

  template <typename Item>
  static constexpr bool whole_groups = last_finishes && (K == 1) && (Item::lanes > 1);

  // The rows of up to `most` groups from an item's on, of which not more are computed at once.
  struct taken_rows {
    size_t groups;
    uint64_t first, count;
  };
  template <typename Item>
  static taken_rows take_rows(const Item& item, size_t most, uint64_t output_size) {
    const size_t groups = std::min<size_t>(most, groups_at_once);
    const uint64_t first = R * item.group();
    return {groups, first, std::min<uint64_t>(R * groups, output_size - first)};
  }

  // The sums of the rows of neighbouring groups, `count` rows in all, with N lanes per strand. Tails of several rows
  // share a vector, and all rows are folded together: one group after another takes a fifth longer with rows of 576.
  template <int N>
  [[gnu::noinline]] simd<T, most_rows> of_groups(const register_type<T>* x, const weight_rows& rows,
                                                 uint64_t count) const {
    static_assert(K == 1 && WG == 2 * N);
    if constexpr (may_use_products) {
      if (by_products()) return sums_of_products(x, rows, count);
    }
    constexpr int vectors = tail_vectors<N>;
    simd<T, most_rows> sums[most_rows];
    if (state_size % 64 != 0) {
      add_scattered_rows<N>(sums, x, rows, count);
      return fold_each(sums);
    }
    for (uint64_t q = 0; q < count; q += beside * vectors) {
      simd<T, beside * N> sum[vectors];
      add_rows<N>(sum, x, block_rows<beside * vectors>(*this, rows, q, count));
      ORRERY_UNROLL for (int v = 0; v < vectors; ++v) {
        simd<T, N> apart[beside];
        take_apart(sum[v], apart);
        ORRERY_UNROLL for (int b = 0; b < beside; ++b) sums[q + v * beside + b] = fold_to<most_rows>(apart[b]);
      }
    }
    return fold_each(sums);
  }

 private:
  uint64_t passes() const { return (state_size + chunk - 1) / chunk; }
  uint64_t pair_inputs() const { return passes() * K * inputs * places; }
  static constexpr int places = WG * beside;  // of an input's vector in memory: the same for each row beside another

  // The sums of the rows beside each other, as one vector.
  template <int N>
  static auto side_by_side(const simd<T, N>* acc) {
    if constexpr (beside == 2) {
      return join_pairs(acc[0], acc[1]);
    } else {
      return acc[0];
    }
  }
  template <int N>
  static void take_apart(const simd<T, beside * N>& sum, simd<T, N>* acc) {
    if constexpr (beside == 2) {
      std::tie(acc[0], acc[1]) = split_pairs(sum);
    } else {
      acc[0] = sum;
    }
  }

  // Here and below, only constants index the sums. If loop variables do, even in unrolled loops, GCC keeps the sums in
  // memory, which costs a q4_0 product 5% for pairs and 10% for one row.
  template <int N, typename Inputs, typename Place>
  ORRERY_INLINE void add_row(simd<T, N> (&acc)[K * R], Inputs x, const Place& at, size_t l) const {
    constexpr int sums = K * R / beside, M = beside * N;
    simd<T, M> sum[sums];
    for_each_constant<sums>([&](auto i) ORRERY_INLINE { sum[i] = side_by_side(acc + i * beside); });
    const uint64_t full = state_size / chunk;
    for (uint64_t t = 0; t < full; ++t, x.next_pass()) add_pass<N>(sum, x, at, t);
    if (const auto some = mask<M>::first(beside * tail_items(l)); some.any()) {
      simd<T, M> more[sums];
      for_each_constant<sums>([&](auto i) ORRERY_INLINE { more[i] = sum[i]; });
      add_pass<N>(more, x, at, full);
      for_each_constant<sums>([&](auto i) ORRERY_INLINE { sum[i] = select(some, more[i], sum[i]); });
    }
    for_each_constant<sums>([&](auto i) ORRERY_INLINE { take_apart(sum[i], acc + i * beside); });
  }

  // Work-items from the l-th on that have a run in the last, partial pass; not positive if there are none.
  int64_t tail_items(size_t l) const { return static_cast<int64_t>((state_size / run) % WG) - static_cast<int64_t>(l); }

  static constexpr uint64_t input_index(uint64_t c, int k) {
    const uint64_t o = c % 64;
    return c - o + Format::first_element(static_cast<int>(o)) + Format::element(k);
  }

  // The sum of a run's inputs, for formats with an offset: one at a time for a single row, in twos for a pair of rows.
  template <typename V, typename Get>
  static V sum_of_inputs(Get get) {
    V sum = K == 1 ? get(0) : get(0) + get(1);
    ORRERY_UNROLL for (int k = K; k < run; k += K) sum += K == 1 ? get(k) : get(k) + get(k + 1);
    return sum;
  }

  // The inputs as the host arranges them, [pass][input row][term][work-item][row beside], from the first lane's on.
  struct arranged_inputs {
    const register_type<T>* at;
    template <int M>
    simd<T, M> get(int row, int k) const {
      return simd<T, M>::load_register_values(at + (row * inputs + k) * places);
    }
    simd<T, 1> of_lane(int row, int k, int lane) const {
      return simd<T, 1>::load_register_values(at + (row * inputs + k) * places + beside * lane);
    }
    void next_pass() { at += K * inputs * places; }
  };
  // The inputs of one work-item, read from x.
  struct own_inputs {
    const T* x;
    uint64_t state_size, c;
    template <int M>
    simd<T, M> get(int row, int k) const {
      const T* p = x + row * state_size;
      const auto input = [&](int i) { return simd<T, M>::load(p + input_index(c, i)); };
      return k < run ? input(k) : sum_of_inputs<simd<T, M>>(input);
    }
    simd<T, 1> of_lane(int row, int k, int) const { return get<1>(row, k); }
    void next_pass() { c += chunk; }
  };

  void arrange(register_type<T>* to, uint64_t row, uint64_t t) const {
    const uint64_t left = row < n ? (state_size - t * chunk) / run : 0;
    const int items = static_cast<int>(std::min<uint64_t>(left, WG));
    const T* from = x + row * state_size;
    for (int k = 0; k < run; ++k) {
      register_type<T>* place = to + k * places;
      for (int l = 0; l < items; ++l, place += beside) {
        const auto value = simd<T, 1>::load(from + input_index(t * chunk + run * l, k)).register_value(0);
        ORRERY_UNROLL for (int b = 0; b < beside; ++b) place[b] = value;
      }
      // Where several rows' tails share a vector, each has the same inputs.
      const bool repeats = items == runs_per_block;
      for (; place < to + (k + 1) * places; ++place) *place = repeats ? place[-beside * items] : register_type<T>(0);
    }
    if constexpr (Format::has_offset) {
      using V = simd<T, 16>;
      for (int l = 0; l < places; l += V::lanes) {
        const V sum = sum_of_inputs<V>([&](int k) { return V::load_register_values(to + k * places + l); });
        sum.store_register_values(to + run * places + l);
      }
    }
  }

  // Locates a strand's quants and scales. If rows begin on block boundaries, so do strands, and a strand's lanes read
  // contiguous bytes. Otherwise each lane has its own block, found as if rows began on a boundary.
  template <bool RowsOnBlocks>
  struct place {
    const uint8_t *weight, *scales;
    uint32_t scale_offset;
    uint64_t first;                     // the element that lane 0 starts at
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
    // Prefetches the same run of the next work-group's row.
    template <int N>
    ORRERY_INLINE void prefetch_next(uint64_t t, int r) const {
      Format::template prefetch_codes<N>(weight, scale_offset, block(t, r) + next_blocks, l % runs_per_block * run);
    }
    const uint8_t* scale(uint64_t t, int r, int lane = 0) const {
      return scales + uint64_t(block(t, r, lane)) * Format::scale_bytes;
    }
  };

  // The runs of `Rows` rows of W: the codes' words and the scales. One row, or two beside each other.
  template <int N, int Rows>
  struct runs {
    static constexpr int lanes = N * Rows;
    simd<uint32_t, N> word[Rows][Format::words];
    const uint8_t* scales[Rows];

    // The unscaled values of the k-th terms.
    simd<T, lanes> term(int k) const {
      if constexpr (Rows == 2) {
        return Format::template unscaled<T>(Format::pair_code(word[0], word[1], k));
      } else {
        return Format::template term<T>(word[0], k);
      }
    }
    template <typename... Sums>
    simd<T, lanes> scaled(const Sums&... s) const {
      if constexpr (Rows == 2) {
        return Format::template scaled_pairs<T, N, runs_per_block>(s..., scales[0], scales[1]);
      } else {
        return Format::template scaled<T, N, runs_per_block>(s..., scales[0]);
      }
    }
  };

  // Calls use(k, c, sum) with the scaled sum of run c's products with input row k. Each sum is a chain of dependent
  // additions, so the chains are interleaved: 10% faster in float and 25% in emulated half than one after another.
  template <int Chains, typename Runs, typename Input, typename Use>
  ORRERY_INLINE static void sum_runs(const Runs (&of)[Chains], const Input& in, Use use) {
    using V = simd<T, Runs::lanes>;
    V s[K][Chains];
    ORRERY_UNROLL for (int i = 0; i < run; ++i) {
      ORRERY_UNROLL for (int c = 0; c < Chains; ++c) {
        const auto value = of[c].term(i);
        ORRERY_UNROLL for (int k = 0; k < K; ++k) {
          const auto product = in(k, i, c) * value;
          s[k][c] = i == 0 ? product : s[k][c] + product;
        }
      }
    }
    for_each_constant<K * Chains>([&](auto i) ORRERY_INLINE {
      constexpr auto k = std::integral_constant<int, i / Chains>();
      constexpr auto c = std::integral_constant<int, i % Chains>();
      if constexpr (Format::has_offset) {
        use(k, c, of[c].scaled(s[k][c], in(k, run, c)));
      } else {
        use(k, c, of[c].scaled(s[k][c]));
      }
    });
  }

  template <int N, int M, typename Inputs>
  ORRERY_INLINE void add_pass(simd<T, M> (&acc)[K * R / beside], const Inputs& x, const place<true>& at,
                              uint64_t t) const {
    constexpr int vectors = R / beside, together = vectors % 2 == 0 ? 2 : 1;
    for_each_constant<vectors / together>([&](auto i) ORRERY_INLINE {
      constexpr int first = i * together;
      runs<N, beside> of[together];
      ORRERY_UNROLL for (int c = 0; c < together; ++c) {
        ORRERY_UNROLL for (int b = 0; b < beside; ++b) {
          const int r = (first + c) * beside + b;
          at.template prefetch_next<N>(t, r);
          at.load(t, r, of[c].word[b]);
          of[c].scales[b] = at.scale(t, r);
        }
      }
      sum_runs(
          of, [&](int k, int i, int) ORRERY_INLINE { return x.template get<M>(k, i); },
          [&](auto k, auto c, const auto& sum) ORRERY_INLINE { acc[k * vectors + first + c] += sum; });
    });
  }

  // Neighbouring rows of whole groups whose tails share a vector: their number of vectors.
  template <int N>
  static constexpr int tail_vectors = N / runs_per_block;

  // The first blocks of the rows from the q-th on, and of those whose data are prefetched. From row `count` on it is
  // the last one again.
  template <int Rows>
  struct block_rows {
    static constexpr int ahead = 2 * beside;
    const uint8_t *weight, *scales;
    uint32_t scale_offset;
    uint32_t first[Rows + ahead];

    block_rows(const row_sums& sums, const weight_rows& rows, uint64_t q, uint64_t count)
        : weight(rows.weight), scales(rows.weight + rows.scale_offset), scale_offset(rows.scale_offset) {
      for (uint64_t i = 0; i < Rows + ahead; ++i) {
        const uint64_t row = i < Rows ? std::min(q + i, count - 1) : q + i;
        first[i] =
            static_cast<uint32_t>((rows.first + row / R * rows.next + row % R * rows.step) * (sums.state_size / 64));
      }
    }
    const uint8_t* scale(uint32_t block) const { return scales + uint64_t(block) * Format::scale_bytes; }

    // Runs of N work-items from block `at` of a row on, or of two rows.
    template <int N>
    ORRERY_INLINE runs<N, beside> load(int row, uint32_t at) const {
      runs<N, beside> of;
      ORRERY_UNROLL for (int b = 0; b < beside; ++b) {
        Format::template prefetch_codes<N>(weight, scale_offset, first[row + ahead + b] + at, 0);
        Format::load(weight, scale_offset, first[row + b] + at, 0, of.word[b]);
        of.scales[b] = scale(first[row + b] + at);
      }
      return of;
    }
    // Runs of block `at` of every row; of every other row, if two are beside each other.
    template <int N>
    ORRERY_INLINE runs<N, beside> load_tails(uint32_t at, uint8_t (&kept)[beside][64]) const {
      constexpr int some = Rows / beside;
      runs<N, beside> of;
      ORRERY_UNROLL for (int b = 0; b < beside; ++b) {
        uint32_t block[some];
        ORRERY_UNROLL for (int i = 0; i < some; ++i) {
          block[i] = first[i * beside + b] + at;
          std::memcpy(kept[b] + i * Format::scale_bytes, scale(block[i]), Format::scale_bytes);
        }
        Format::load_blocks(weight, block, of.word[b]);
        of.scales[b] = kept[b];
      }
      return of;
    }
  };

  // Whether the two chains of sums that are computed at a time are both strands of a row, which is one stream of
  // memory, or a strand of two rows; or of pairs of rows, if two are beside each other. Measured from memory, 4096 x
  // 4096, two threads: in float both strands are 5% faster with q4_0 and 13% slower with q8_0, in half 20% slower with
  // q4_0 and 12% faster with fp6, whose codes lie in two planes.
  static constexpr bool both_strands = Format::words > 2 || (beside == 1 && run == 16);

  // The sums of rows that begin on block boundaries, those of both strands of a group added.
  template <int N, int Vectors>
  ORRERY_INLINE void add_rows(simd<T, beside * N> (&sum)[Vectors], const register_type<T>* x,
                              const block_rows<beside * Vectors>& rows) const {
    constexpr int M = beside * N, strand_blocks = N / runs_per_block, strands = both_strands ? 2 : 1;
    static_assert(Vectors % 2 == 0);
    const auto input = [](const register_type<T>* x) {
      return [x](int, int i, int) ORRERY_INLINE { return simd<T, M>::load_register_values(x + i * places); };
    };
    const bool shared_tail = has_load_blocks && tail_items(0) == runs_per_block;
    const int64_t items = static_cast<int64_t>(state_size / run) - (shared_tail ? runs_per_block : 0);
    simd<T, M> acc[2][Vectors];
    for (int v = 0; v < Vectors; v += 2 / strands) {
      for (int first = 0; first < 2; first += strands) {
        simd<T, M> mine[2];
        const register_type<T>* in = x + first * M;
        uint32_t block = first * strand_blocks;
        int64_t left = items - first * N;
        for (; left > (strands - 1) * N; left -= WG, in += inputs * places, block += 2 * strand_blocks) {
          runs<N, beside> of[2];
          for_each_constant<2>([&](auto c) ORRERY_INLINE {
            of[c] = rows.template load<N>((v + c / strands) * beside, block + c % strands * strand_blocks);
          });
          sum_runs(
              of,
              [&](int, int i, int c)
                  ORRERY_INLINE { return simd<T, M>::load_register_values(in + i * places + c % strands * M); },
              [&](auto, auto c, const auto& part) ORRERY_INLINE {
                mine[c] = select(mask<M>::first(beside * (left - c % strands * N)), mine[c] + part, mine[c]);
              });
        }
        if (strands == 2 && left > 0) {
          const runs<N, beside> of[1] = {rows.template load<N>(v * beside, block)};
          sum_runs(of, input(in), [&](auto, auto, const auto& part) ORRERY_INLINE {
            mine[0] = select(mask<M>::first(beside * left), mine[0] + part, mine[0]);
          });
        }
        for_each_constant<2>([&](auto c) ORRERY_INLINE { acc[first + c % strands][v + c / strands] = mine[c]; });
      }
    }
    if constexpr (has_load_blocks) {
      if (shared_tail) {
        constexpr int items = beside * runs_per_block;
        alignas(64) uint8_t scales[beside][64];
        const uint32_t pass = static_cast<uint32_t>(state_size / chunk);
        const runs<N, beside> of[1] = {rows.template load_tails<N>(pass * (chunk / 64), scales)};
        sum_runs(of, input(x + pass * (inputs * places)), [&](auto, auto, const auto& part) ORRERY_INLINE {
          for_each_constant<Vectors>([&](auto v) ORRERY_INLINE {
            acc[0][v] = select(mask<M>::first(items), acc[0][v] + shift_lanes(part, v * items), acc[0][v]);
          });
        });
      }
    }
    for_each_constant<Vectors>([&](auto v) ORRERY_INLINE { sum[v] = acc[0][v] + acc[1][v]; });
  }
  static constexpr bool has_load_blocks = requires(const uint8_t* weight, const uint32_t (&block)[4],
                                                   simd<uint32_t, 4 * runs_per_block> (&word)[Format::words]) {
    Format::load_blocks(weight, block, word);
  };

  // The same for rows that begin anywhere, one group after another; without the rest of the tree.
  template <int N>
  void add_scattered_rows(simd<T, most_rows> (&sums)[most_rows], const register_type<T>* x, weight_rows rows,
                          uint64_t count) const {
    for (uint64_t g = 0; g * R < count; ++g, rows.first += rows.next) {
      simd<T, N> acc[2][R];
      for (size_t s = 0; s < 2; ++s) {
        add_row<N>(acc[s], arranged_inputs{x + beside * s * N}, place<false>(*this, rows, s * N), s * N);
      }
      for (int r = 0; r < R; ++r) sums[g * R + r] = fold_to<most_rows>(acc[0][r] + acc[1][r]);
    }
  }

  // ---- The same with tables of products ----
  //
  // Where a half or a bfloat16 is a rounded float, rounding is most of the work: two conversions or five operations for
  // each product and each sum. With 4-bit codes an input has only 16 products, which are made once per launch and
  // thread. The lanes are then 16 rows of the weight, which share the input and so its table. q4_0, 4096 x 4096, on one
  // core without arithmetic in half: 1.75 instead of 2.85 ms, in bfloat16 1.63 instead of 2.59. Without the prefetch it
  // is 2.7 ms, with one run after another, whose sums wait for each other, 3.2.
  static constexpr bool may_use_products = K == 1 && is_widened<T> && run == 16 && !Format::has_offset && requires {
    Format::codes_per_byte;
  };
  // Longer rows have tables beyond the second-level cache.
  bool by_products() const { return may_use_products && state_size % 64 == 0 && state_size <= 8192; }

  // The products of an input with the values of all codes, for the inputs in the order of runs and their terms.
  void arrange_products(register_type<T>* to) const {
    const auto values = Format::template unscaled<T>(simd<uint32_t, 16>::iota());
    for (uint64_t c = 0; c < state_size; c += run) {
      for (int k = 0; k < run; ++k, to += 16) {
        (broadcast<16>(simd<T, 1>::load(x + input_index(c, k))) * values).store_register_values(to);
      }
    }
  }

  simd<T, most_rows> sums_of_products(const register_type<T>* products, const weight_rows& rows, uint64_t count) const {
    const block_rows<most_rows> at(*this, rows, 0, count);
    const uint8_t* codes[most_rows];
    for (int r = 0; r < most_rows; ++r) codes[r] = at.weight + uint64_t(at.first[r]) * Format::quant_bytes;
    simd<T, most_rows> acc[WG];
    for (uint32_t b = 0; b < state_size / 64; ++b) {
      alignas(64) uint32_t words[runs_per_block][Format::words][most_rows];
      alignas(64) uint8_t scales[most_rows * Format::scale_bytes];
      transpose_words<Format::quant_bytes / 4>(codes, uint64_t(b) * Format::quant_bytes, words[0][0]);
      for (int r = 0; r < most_rows; ++r) {
        prefetch<Format::quant_bytes>(codes[r] + uint64_t(b + 4) * Format::quant_bytes);
        std::memcpy(scales + r * Format::scale_bytes, at.scale(at.first[r] + b), Format::scale_bytes);
      }
      simd<uint32_t, most_rows> word[runs_per_block][Format::words];
      simd<T, most_rows> s[runs_per_block];
      ORRERY_UNROLL for (int i = 0; i < runs_per_block; ++i) {
        ORRERY_UNROLL for (int w = 0; w < Format::words; ++w) word[i][w] = simd<uint32_t, most_rows>::load(words[i][w]);
      }
      ORRERY_UNROLL for (int k = 0; k < run; ++k) {
        ORRERY_UNROLL for (int i = 0; i < runs_per_block; ++i) {
          const auto product =
              lookup(simd<T, 16>::load_register_values(products + 16 * (run * i + k)), Format::code(word[i], k));
          s[i] = k == 0 ? product : s[i] + product;
        }
      }
      products += 16 * 64;
      ORRERY_UNROLL for (int i = 0; i < runs_per_block; ++i) {
        acc[(b * runs_per_block + i) % WG] += Format::template scaled<T, most_rows, 1>(s[i], scales);
      }
    }
    for (int half = WG / 2; half >= 1; half /= 2) {
      for (int i = 0; i < half; ++i) acc[i] += acc[i + half];
    }
    return acc[0];
  }

  // Rare, so it is not vectorized: one lane after another.
  template <int N, int M, typename Inputs>
  void add_pass(simd<T, M> (&acc)[K * R / beside], const Inputs& x, const place<false>& at, uint64_t t) const {
    for (int lane = 0; lane < N; ++lane) {
      for (int r = 0; r < R; ++r) {
        const auto of_row = [&](int k) -> simd<T, M>& { return acc[(k * R + r) / beside]; };
        const int place = beside * lane + r % beside;
        runs<1, 1> of[1];
        at.load(t, r, of[0].word[0], lane);
        of[0].scales[0] = at.scale(t, r, lane);
        sum_runs(
            of, [&](int row, int k, int) { return x.of_lane(row, k, lane); },
            [&](auto k, auto, const auto& sum) {
              auto& total = of_row(k);
              total.set(place, (simd<T, 1>(total[place]) + sum)[0]);
            });
      }
    }
  }
};

// What a work-item of a kernel over row_sums does. On the host the last strand of a group computes all of it, as
// take_groups does for several; elsewhere every work-item has its part of one_group.
template <typename Kernel, typename Item>
void compute_group(const Kernel& kernel, const Item& item) {
  if constexpr (Kernel::template takes_whole_groups<Item>) {
    item.when_last([&] { kernel.take_groups(item, 1); });
  } else {
    kernel.one_group(item);
  }
}

// y = W x: a work-group computes R rows of W for K input rows. With K = 2 the group's second index is its pair of input
// rows; if n is odd, the second row of the last pair is computed but not stored.
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

  using sums_type = row_sums<Format, T, WG, R, K>;
  template <typename Item>
  static constexpr bool takes_whole_groups = sums_type::template whole_groups<Item>;

  template <typename Item>
  void operator()(const Item& item) const {
    compute_group(*this, item);
  }

  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires takes_whole_groups<Item> {
    const auto rows = sums_type::take_rows(item, most, this->output_size);
    const sums_type sums{this->state_size, this->x, this->n};
    sums.template of_groups<Item::lanes>(sums.shared_inputs(item), weight_rows(rows.first), rows.count)
        .store(this->y + rows.first, mask<sums_type::most_rows>::first(rows.count));
    return rows.groups;
  }
  size_t groups_together() const { return K == 1 ? sums_type::groups_at_once : 1; }

  template <typename Item>
  void one_group(const Item& item) const {
    const uint64_t first = R * item.group(), first_input = K == 1 ? 0 : K * item.group(1);
    const sums_type sums{this->state_size, this->x, this->n};
    simd<T, Item::lanes> acc[K * R];
    sums.add(item, acc, sums.input_order(item, first_input), weight_rows(first));
    const uint64_t live = std::min<uint64_t>(K, this->n - first_input);
    tree_sum<WG, K * R>(item, &partial[sycl::id<K>()], acc, [&](int i, T total) {
      const uint64_t k = i / R, row = first + i % R;
      if (k < live && row < this->output_size) this->y[(first_input + k) * this->output_size + row] = total;
    });
  }

 private:
  orrery::weight_rows weight_rows(uint64_t first) const {
    return {.weight = this->weight, .scale_offset = this->scale_offset, .first = first, .next = R};
  }
};

// q5_0 and q5_1: a work-group computes one row; a work-item has one byte of a block, and so elements j and j + 32.
// There is no bounds check at the end: with 64 work-items and an odd number of blocks the last pass reads the first
// block of the next row.
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
