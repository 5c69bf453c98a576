// y = W x for a few input rows in explicit SIMD: a work-item computes one row of the weight. All arithmetic is in half;
// float inputs are narrowed when they are loaded, and results widened when they are stored.
//
// The two kernels add in different orders. The general one folds each span of 256 products to one number and adds up
// these numbers; the slim one accumulates a whole row in 64 lanes and folds once.
#pragma once

#include <cstdint>

#include "batch/instances.h"
#include "formats/dense_readers.h"
#include "includes/item.h"
#include "linear/kernel_name.h"
#include "linear/launch.h"

namespace orrery {

using c10::Half;

constexpr int blocks_per_span = 4, span = 64 * blocks_per_span, row_group = 8;

// A format for these kernels. Its unit adds the unit's name and whether the slim kernel stages the input.
template <weight_format Format, typename Reader>
struct vector_format {
  static constexpr weight_format code = Format;
  using reader = Reader;
};

template <typename Format>
formats::block_planes planes_of(const linear_operands& on) {
  return formats::planes_of(Format::code, on.weight, on.output_size, on.state_size);
}

template <typename T>
struct vector_arguments {
  formats::block_planes planes;
  const T* x = nullptr;
  T* y = nullptr;
  uint64_t input_size = 0, state_size = 0, output_size = 0;
  sycl::local_accessor<Half> tile;  // if the kernel stages: one span of every input row

  template <typename Format>
  void bind(const linear_operands& on, sycl::handler& h, uint64_t tile_rows) {
    planes = planes_of<Format>(on);
    x = static_cast<const T*>(on.x);
    y = static_cast<T*>(on.y);
    input_size = on.n;
    state_size = on.state_size;
    output_size = on.output_size;
    if (tile_rows > 0) tile = sycl::local_accessor<Half>(sycl::range<1>(span * tile_rows), h);
  }

  uint64_t spans() const { return state_size / span; }
  uint64_t row_blocks() const { return state_size / 64; }
  uint64_t first_block(uint64_t row, uint64_t c) const { return row * row_blocks() + c * blocks_per_span; }
  const T* input(uint64_t row, uint64_t c, int block) const { return x + row * state_size + c * span + block * 64; }

  // Copies the part of one of `group` work-items into the tile: 64 elements of each (group / 4)th row.
  void stage(int item, int group, uint64_t c) const {
    for (uint64_t r = 0; r < input_size; r += group / 4) {
      const uint64_t row = r + item / 4;
      if (row >= input_size) return;
      convert<Half>(simd<T, 64>::load(input(row, c, item % 4))).store(&tile[64 * item + span * r]);
    }
  }
};

// Work-items that one strand processes together, so that an input row is loaded and widened once for all of them.
template <int Some>
constexpr int together = last_finishes ? Some : 1;

// Decodes a span of each of `Items` neighbouring rows, which are `row_blocks` blocks apart.
template <typename Reader, int Items>
void read_spans(const formats::block_planes& planes, uint64_t first_block, uint64_t row_blocks,
                simd<Half, span> (&w)[Items]) {
  for (int i = 0; i < Items; ++i) formats::read_blocks<Reader>(planes, first_block + i * row_blocks, w[i]);
}

// Lane i is fold(w[i] * x).
template <int Items>
simd<Half, Items> dots(const simd<Half, span> (&w)[Items], const simd<Half, span>& x) {
  if constexpr (Items == 1) {
    return simd<Half, 1>(fold(w[0] * x));
  } else {
    simd<Half, Items> part[Items];
    for (int i = 0; i < Items; ++i) part[i] = fold_to<Items>(w[i] * x);
    return fold_each(part);
  }
}

// Adds the dot products of a span with `rows` rows of the tile to the sums of these rows.
template <int Items>
void add_products(const simd<Half, span> (&w)[Items], const Half* tile, int rows, simd<Half, Items>* sums) {
  for (int r = 0; r < rows; ++r) sums[r] += dots(w, simd<Half, span>::load(tile + span * r));
}

template <typename Format, typename T, int Tail>
struct general_vector_kernel : vector_arguments<T> {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;
  static constexpr int dimensions = 1;

  int group = 0;          // work-items, 16 or 32
  uint64_t boundary = 0;  // rows before the tail

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler& h) {
    vector_arguments<T>::template bind<Format>(on, h, most_vector_rows);
    group = way.shape.work_group;
    boundary = on.n - Tail;
  }

  template <typename Item>
  void operator()(const Item& item) const {
    if (this->input_size == 0) return;  // boundary would be below 0
    constexpr int N = together<16>;
    const uint64_t first_row = item.group() * group;
    in_steps(item, group, [&](int begin, int end, auto meet) {
      simd<Half, N> sums[together<32> / N][most_vector_rows];
      simd<Half, span> w[N];
      for (uint64_t c = 0; c < this->spans(); ++c) {
        for (int i = begin; i < end; ++i) this->stage(i, group, c);
        meet();
        for (int i = begin; i < end; i += N) {
          read_spans<typename Format::reader>(this->planes, this->first_block(first_row + i, c), this->row_blocks(), w);
          auto* sum = sums[(i - begin) / N];
          for (uint64_t b = 0; b < boundary; b += row_group) {
            add_products(w, &this->tile[b * span], row_group, sum + b);
          }
          add_products(w, &this->tile[boundary * span], Tail, sum + boundary);
        }
        meet();
      }
      for (int i = begin; i < end; i += N) {
        for (uint64_t r = 0; r < this->input_size; ++r) {
          convert<T>(sums[(i - begin) / N][r]).store(this->y + r * this->output_size + first_row + i);
        }
      }
    });
  }
};

template <typename Format, typename T, int Rows, int Group>
struct slim_vector_kernel : vector_arguments<T> {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = Format::slim_stages && !last_finishes;
  static constexpr int dimensions = 1;

  void bind(const linear_decision&, const linear_operands& on, sycl::handler& h) {
    vector_arguments<T>::template bind<Format>(on, h, Format::slim_stages ? Rows : 0);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = together<8>;
    const uint64_t first_row = item.group() * Group;
    in_steps(item, Group, [&](int begin, int end, auto meet) {
      simd<Half, 64> sums[together<Group>][Rows];
      simd<Half, 64> w[N];
      for (uint64_t c = 0; c < this->spans(); ++c) {
        if constexpr (Format::slim_stages) {
          for (int i = begin; i < end; ++i) this->stage(i, Group, c);
          meet();
        }
        for (int i = begin; i < end; i += N) {
          for (int q = 0; q < blocks_per_span; ++q) {
            for (int k = 0; k < N; ++k) {
              w[k] = formats::block_values<typename Format::reader>(this->planes,
                                                                    this->first_block(first_row + i + k, c) + q);
            }
            for (int r = 0; r < Rows; ++r) {
              const simd<Half, 64> x = staged_or_not(r, c, q);
              for (int k = 0; k < N; ++k) sums[i - begin + k][r] += w[k] * x;
            }
          }
        }
        if constexpr (Format::slim_stages) meet();
      }
      for (int i = begin; i < end; ++i) {
        for (int r = 0; r < Rows; ++r) {
          convert<T>(simd<Half, 1>(fold(sums[i - begin][r]))).store(this->y + r * this->output_size + first_row + i);
        }
      }
    });
  }

 private:
  simd<Half, 64> staged_or_not(int row, uint64_t c, int block) const {
    if constexpr (Format::slim_stages) {
      return simd<Half, 64>::load(&this->tile[span * row + 64 * block]);
    } else {
      return convert<Half>(simd<T, 64>::load(this->input(row, c, block)));
    }
  }
};

template <typename Format, typename Kernel>
void launch_vectors(const linear_decision& way, const linear_operands& on) {
  if constexpr (Format::code == weight_format::fp8_e5m2) check_no_scales(planes_of<Format>(on).scales);
  launch_bound<Kernel>(way, on, {Format::unit, way.kernel});
}

template <typename Format, template <typename, int, int, int> typename Kernel, int Tail>
void launch_general(const linear_decision& way, const linear_operands& on) {
  check_whole_groups(way, on);
  check_input_rows(way, on);
  with_half_or_float(
      on.type, [&](auto t) { launch_vectors<Format, Kernel<decltype(t), Tail, row_group, blocks_per_span>>(way, on); });
}

template <typename Format, template <typename, int, int, int> typename Kernel, int Rows, int Group>
void launch_slim(const linear_decision& way, const linear_operands& on) {
  check_whole_groups(way, on);
  with_half_or_float(
      on.type, [&](auto t) { launch_vectors<Format, Kernel<decltype(t), Rows, blocks_per_span, Group>>(way, on); });
}

// Work-group size of a slim kernel; to stage it needs four work-items per input row.
constexpr int slim_group(bool stages, int rows) {
  if (!stages) return rows <= 4 ? 8 : 16;
  return rows <= 2 ? 8 : rows <= 4 ? 16 : 32;
}

template <typename Format, template <typename, int, int, int> typename General,
          template <typename, int, int, int> typename Slim>
constexpr vector_kernels vector_kernels_of() {
  vector_kernels all{kernel_name<General>, kernel_name<Slim>, {}, {}};
  for_each_constant<vector_tails>([&](auto i) {
    constexpr int rows = i + 1, group = slim_group(Format::slim_stages, rows);
    all.general[i] = launch_general<Format, General, rows>;
    all.slim[i] = {launch_slim<Format, Slim, rows, group>, group};
  });
  return all;
}

}  // namespace orrery
