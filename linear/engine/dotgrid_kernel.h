// Several input rows on the matrix engine. A work-group computes a tile of 8 input rows and N rows of the weight
// (columns of the result); each of its 8 work-items takes a slice of each row's blocks.
#pragma once

#include <algorithm>
#include <cstdint>

#include "formats/engine_operand.h"
#include "formats/registry.h"
#include "includes/item.h"
#include "includes/matrix_engine.h"
#include "linear/dispatch.h"

namespace orrery {

// T is the type of input and result, C that of the engine's operands, A that of its accumulators, P that of the slices'
// sums in local memory. `tail` is the number of rows of the last tile.
template <typename T, typename C, typename A, typename P, int tail, int N, int depth>
struct dotgrid_forward_kernel {
  static_assert(std::is_same_v<A, float> && depth == matrix_engine::tile_rows);
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr int dimensions = 2;
  static constexpr int QK = matrix_engine::block;
  static constexpr int slices = depth;
  static constexpr int partial_sums = depth * slices * N;

  const T* x = nullptr;
  const uint8_t* quants = nullptr;
  const uint8_t* scales = nullptr;
  T* y = nullptr;
  uint64_t nb = 0;  // blocks per row
  uint64_t slice_length = 0;
  uint64_t output_size = 0;
  weight_format format{};
  sycl::local_accessor<P> partial;  // depth rows of `slices` sums of N

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler& h) {
    x = static_cast<const T*>(on.x);
    quants = on.weight;
    scales = on.weight + way.scale_offset;
    y = static_cast<T*>(on.y);
    nb = on.state_size / QK;
    slice_length = (nb + slices - 1) / slices;
    output_size = on.output_size;
    format = on.format;
    partial = sycl::local_accessor<P>(sycl::range<1>(partial_sums), h);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    if (item.group(1) + 1 < item.group_range(1)) {
      rows<depth>(item);
    } else {
      rows<tail>(item);
    }
  }

  // On the host: all tiles of several groups of columns together, so that a block is decoded once and columns fill
  // vectors.
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const requires last_finishes {
    const size_t tiles = item.group_range(1), first = item.group(1);
    const size_t left = std::min({most, tiles - first, most_tiles});  // for the group's own columns
    const size_t groups = left == tiles ? std::min<size_t>(most / tiles, matrix_engine::host_columns / N) : 1;
    const columns_of_tiles part{item.group(0) * N, static_cast<int>(groups * N), first, first + left, tiles};
    const float* a = arranged_input(item);
    if (part.columns <= 16) {
      together<16>(a, part);
    } else {
      together<matrix_engine::host_columns>(a, part);
    }
    return groups * left;
  }

 private:
  std::pair<uint64_t, uint64_t> blocks_of(uint64_t slice) const {  // the last slices may have none
    return {std::min(slice * slice_length, nb), std::min((slice + 1) * slice_length, nb)};
  }

  template <int R, typename Item>
  void rows(const Item& item) const {
    const uint64_t s = item.local_linear();
    const uint64_t column = item.group(0) * N, row = item.group(1) * depth;
    matrix_engine::tile<R, N> sum;
    formats::with_engine_format(format, [&](auto f) { add_slice<decltype(f)>(s, row, column, sum); });

    P* sums = &partial[0];
    for (int r = 0; r < R; ++r) convert<P>(sum.row(r)).store(sums + (r * slices + s) * N);
    // Work-items beyond the rows have nothing to store.
    meet_to_finish<slices>(item, [&](int begin, int end) {
      for (int r = begin; r < std::min(end, R); ++r) {
        simd<P, N> total;
        ORRERY_UNROLL for (int k = 0; k < slices; ++k) total += simd<P, N>::load(sums + (r * slices + k) * N);
        convert<T>(total).store(y + (row + r) * output_size + column);
      }
    });
  }

  template <typename Format, int R>
  void add_slice(uint64_t s, uint64_t row, uint64_t column, matrix_engine::tile<R, N>& sum) const {
    C a[R * QK], b[QK * N];
    const auto [first, last] = blocks_of(s);
    for (uint64_t block = first; block < last; ++block) {
      for (int r = 0; r < R; ++r) convert<C>(input(row + r, block)).store(a + r * QK);
      formats::read_units<Format, C, N>(quants, column * nb + block, nb, b);
      float d[N];
      for (int j = 0; j < N; ++j) d[j] = formats::read_scale<Format>(scales, (column + j) * nb + block);
      matrix_engine::add_block(sum, a, b, simd<float, N>::load(d));
    }
  }

  simd<T, QK> input(uint64_t row, uint64_t block) const { return simd<T, QK>::load(x + (row * nb + block) * QK); }

  // ---- On the host ----

  static constexpr size_t most_tiles = 8;  // tiles whose sums are kept at once
  struct columns_of_tiles {
    uint64_t first;  // column
    int columns;
    size_t begin, end, tiles;  // the range of tiles, and their total number

    int rows_of(size_t tile) const { return tile + 1 < tiles ? depth : tail; }
    size_t sums() const { return (end - begin) * depth; }
  };

  // Operand A, by tiles and blocks, made once per launch and thread.
  template <typename Item>
  const float* arranged_input(const Item& item) const {
    const uint64_t size = nb * depth * QK, tiles = item.group_range(1), input_size = (tiles - 1) * depth + tail;
    return item.template shared_by_launch<float>(tiles * size, [&](float* to) {
      for (uint64_t r = 0; r < input_size; ++r) {
        for (uint64_t b = 0; b < nb; ++b) {
          convert<float>(convert<C>(input(r, b))).store(to + r / depth * size + (b * depth + r % depth) * QK);
        }
      }
    });
  }

  // Each input row has `Columns` contiguous sums.
  template <int Columns>
  void together(const float* a, const columns_of_tiles& part) const {
    alignas(64) float sums[most_tiles * depth * Columns];
    alignas(64) P total[most_tiles * depth * Columns] = {};
    for (uint64_t s = 0; s < slices; ++s) {
      std::fill_n(sums, part.sums() * Columns, 0.0f);
      formats::with_engine_format(format, [&](auto f) { add_slice<decltype(f), Columns>(a, s, part, sums); });
      for (size_t i = 0; i < part.sums() * Columns; i += 16) {
        using V = simd<P, 16>;
        (V::load(total + i) + convert<P>(simd<float, 16>::load(sums + i))).store(total + i);
      }
    }
    for (size_t t = part.begin; t < part.end; ++t) {
      for (int r = 0; r < part.rows_of(t); ++r) {
        const P* from = total + ((t - part.begin) * depth + r) * Columns;
        T* to = y + (t * depth + r) * output_size + part.first;
        for (int j = 0; j < part.columns; j += N) convert<T>(simd<P, N>::load(from + j)).store(to + j);
      }
    }
  }

  // Columns beyond the last read the last one again.
  template <typename Format, int Columns>
  void add_slice(const float* a, uint64_t s, const columns_of_tiles& part, float* sums) const {
    const uint8_t* row[Columns / 16][16];
    for (int j = 0; j < Columns; ++j) {
      row[j / 16][j % 16] = quants + (part.first + std::min(j, part.columns - 1)) * nb * Format::quant_bytes;
    }
    alignas(64) float b[QK * Columns], d[Columns] = {};
    for (auto [block, last] = blocks_of(s); block < last; ++block) {
      for (int j = 0; j < Columns; j += 16) {
        formats::read_columns<Format, C, Columns>(row[j / 16], block * Format::quant_bytes, b + j);
      }
      for (int j = 0; j < part.columns; ++j) {
        d[j] = formats::read_scale<Format>(scales, (part.first + j) * nb + block);
      }
      prefetch_next<Format>(part, block);
      for (size_t t = part.begin; t < part.end; ++t) {
        const float* tile = a + (t * nb + block) * depth * QK;
        float* sum = sums + (t - part.begin) * depth * Columns;
        if (part.rows_of(t) == depth) {
          matrix_engine::add_block<depth, Columns>(tile, b, d, sum);
        } else {
          matrix_engine::add_block<tail, Columns>(tile, b, d, sum);
        }
      }
    }
  }

  // Prefetches as many blocks of the next columns as were read of these. If codes fill whole cache lines, the hardware
  // prefetcher does better: with prefetches q8_0 takes 3.7 ms instead of 3.0. For half lines it does not: without them
  // q4_0 takes 3.3 ms instead of 2.7.
  template <typename Format>
  ORRERY_INLINE void prefetch_next(const columns_of_tiles& part, uint64_t block) const {
    const uint64_t next = (part.first + part.columns) * nb + block * part.columns;
    prefetch_far<matrix_engine::host_columns * Format::scale_bytes>(scales + next * Format::scale_bytes);
    if constexpr (Format::quant_bytes < 64) {
      for (int j = 0; j < part.columns; j += 2) {
        prefetch_far<2 * Format::quant_bytes>(quants + (next + j) * Format::quant_bytes);
      }
    }
  }
};

}  // namespace orrery
