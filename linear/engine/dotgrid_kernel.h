// Several input rows on the matrix engine. A work-group takes a tile of 8 input rows and N rows of the weight; each of
// its 8 work-items takes a slice of the blocks of a weight row.
#pragma once

#include <algorithm>
#include <cstdint>

#include "formats/engine_operand.h"
#include "formats/registry.h"
#include "includes/item.h"
#include "includes/matrix_engine.h"

namespace orrery {

// T is the type of input and result, C that of the engine's operands, A that of its accumulators, P that of the slices'
// sums when they meet. `tail` is the number of rows of the last tile.
template <typename T, typename C, typename A, typename P, int tail, int N, int depth>
struct dotgrid_forward_kernel {
  static_assert(std::is_same_v<A, float> && depth == matrix_engine::tile_rows);
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr int QK = matrix_engine::block;
  static constexpr int slices = depth;
  static constexpr int partial_sums = depth * slices * N;
  using element = matrix_engine::operand_element<C>;

  const T* x;
  const uint8_t* quants;
  const uint8_t* scales;
  T* y;
  uint64_t nb;  // blocks of a row
  uint64_t slice_length;
  uint64_t output_size;
  weight_format format;
  sycl::local_accessor<P> partial;  // depth rows of `slices` sums of N

  template <typename Item>
  void operator()(const Item& item) const {
    if (item.group(1) + 1 < item.group_range(1)) {
      rows<depth>(item);
    } else {
      rows<tail>(item);
    }
  }

 private:
  template <int R, typename Item>
  void rows(const Item& item) const {
    const uint64_t s = item.local_linear();
    const uint64_t column = item.group(0) * N, row = item.group(1) * depth;
    matrix_engine::tile<R, N> sum;
    formats::with_engine_format(format, [&](auto f) { add_slice<decltype(f)>(item, s, column, sum); });

    P* sums = &partial[0];
    for (int r = 0; r < R; ++r) convert<P>(sum.row(r)).store(sums + (r * slices + s) * N);
    // Items beyond the rows have nothing to finish.
    meet_to_finish<slices>(item, [&](int begin, int end) {
      for (int r = begin; r < std::min(end, R); ++r) {
        simd<P, N> total;
        ORRERY_UNROLL for (int k = 0; k < slices; ++k) total += simd<P, N>::load(sums + (r * slices + k) * N);
        convert<T>(total).store(y + (row + r) * output_size + column);
      }
    });
  }

  // Blocks of slice s; the last slices may have none.
  template <typename Format, typename Item, int R>
  void add_slice(const Item& item, uint64_t s, uint64_t column, matrix_engine::tile<R, N>& sum) const {
    const uint64_t first = std::min(s * slice_length, nb), last = std::min((s + 1) * slice_length, nb);
    alignas(64) element a[R * QK], b[QK * N];
    const auto inputs = tiles_of_input(item, a);
    for (uint64_t block = first; block < last; ++block) {
      const uint64_t at = column * nb + block;
      if constexpr (last_finishes) prefetch_next<Format>(at);
      formats::read_operands<Format, C, N>(quants + at * Format::quant_bytes, nb * Format::quant_bytes, b);
      matrix_engine::add_block<R, N, element>(sum, inputs.template operand<R>(block), b,
                                              formats::read_scales<Format, N>(scales, at, nb));
    }
  }

  // The next group's weights, a block of them for each block of this group's: a thread takes groups in order, and
  // memory is too far for what is asked for only a block ahead.
  template <typename Format>
  ORRERY_INLINE void prefetch_next(uint64_t block) const {
    ORRERY_UNROLL for (int j = 0; j < N; ++j) {
      prefetch_far<Format::quant_bytes>(quants + (block + (N + j) * nb) * Format::quant_bytes);
    }
  }

  // Operand A of every block, tile by tile and block by block. On the host it is made once a launch and thread.
  struct launch_inputs {
    const element* tile;
    template <int R>
    const element* operand(uint64_t block) const {
      return tile + block * depth * QK;
    }
  };
  // Operand A of one block at a time.
  struct own_inputs {
    const dotgrid_forward_kernel& kernel;
    uint64_t row;
    element* a;
    template <int R>
    const element* operand(uint64_t block) const {
      for (int r = 0; r < R; ++r) kernel.narrow_block(row + r, block, a + r * QK);
      return a;
    }
  };
  template <typename Item>
  auto tiles_of_input(const Item& item, element* a) const {
    if constexpr (last_finishes) {
      const uint64_t size = nb * depth * QK, tiles = item.group_range(1), input_size = (tiles - 1) * depth + tail;
      const element* all = item.template shared_by_launch<element>(tiles * size, [&](element* to) {
        for (uint64_t r = 0; r < input_size; ++r) {
          for (uint64_t b = 0; b < nb; ++b) narrow_block(r, b, to + r / depth * size + (b * depth + r % depth) * QK);
        }
      });
      return launch_inputs{all + item.group(1) * size};
    } else {
      return own_inputs{*this, item.group(1) * depth, a};
    }
  }
  void narrow_block(uint64_t row, uint64_t block, element* to) const {
    const auto values = simd<T, QK>::load(x + (row * nb + block) * QK);
    convert<element>(convert<C>(values)).store(to);
  }
};

}  // namespace orrery
