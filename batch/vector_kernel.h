// y = W x for a few input rows in explicit SIMD: a work-item owns one row of the weight. All arithmetic is in half;
// inputs of float are narrowed when they are read and results widened when they are stored.
//
// The two kernels add in different orders. The general one folds each span of 256 products to one number and adds the
// numbers; the slim one adds the products of a whole row into 64 lanes and folds once.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include "batch/instances.h"
#include "batch/plans.h"
#include "formats/dense_readers.h"
#include "includes/item.h"
#include "utils.h"

namespace orrery {

using c10::Half;

constexpr int blocks_per_span = 4, span = 64 * blocks_per_span, row_group = 8;

// A format as the kernels take it.
template <weight_format Format, typename Reader>
struct vector_format {
  using reader = Reader;
  static constexpr bool stages = find_vector_plan(Format)->slim_stages;
};

template <typename T>
struct vector_arguments {
  formats::block_planes planes;
  const T* x = nullptr;
  T* y = nullptr;
  uint64_t input_size = 0, state_size = 0, output_size = 0;
  uint64_t boundary = 0;            // rows of x before the tail
  sycl::local_accessor<Half> tile;  // of a kernel that stages: one span of every row of x

  uint64_t spans() const { return state_size / span; }
  uint64_t first_block(uint64_t row, uint64_t c) const { return row * (state_size / 64) + c * blocks_per_span; }
  const T* input(uint64_t row, uint64_t c, int block) const { return x + row * state_size + c * span + block * 64; }

  // What one of `group` work-items brings into the tile: 64 elements of each (group / 4)th row.
  void stage(int item, int group, uint64_t c) const {
    for (uint64_t r = 0; r < input_size; r += group / 4) {
      const uint64_t row = r + item / 4;
      if (row < input_size)
        convert<Half>(simd<T, 64>::load(input(row, c, item % 4))).store(&tile[64 * item + span * r]);
    }
  }
};

// Work-items that are taken together, so that an input row is read and widened once for all of them.
template <int Some>
constexpr int together = last_finishes ? Some : 1;

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

// Adds the products of a span with `rows` rows of the tile to the sums of these rows.
template <int Items>
void add_products(const simd<Half, span> (&w)[Items], const Half* tile, int rows, simd<Half, Items>* sums) {
  for (int r = 0; r < rows; ++r) sums[r] += dots(w, simd<Half, span>::load(tile + span * r));
}

template <typename Format, typename T, int Tail>
struct general_vector_kernel : vector_arguments<T> {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = !last_finishes;

  int group = 0;  // work-items, 16 or 32

  template <typename Item>
  void operator()(const Item& item) const {
    if (this->input_size == 0) return;
    constexpr int N = together<16>;
    const uint64_t first_row = item.group() * group;
    in_steps(item, group, [&](int begin, int end, auto meet) {
      simd<Half, N> sums[together<32> / N][most_rows];
      simd<Half, span> w[N];
      for (uint64_t c = 0; c < this->spans(); ++c) {
        for (int i = begin; i < end; ++i) this->stage(i, group, c);
        meet();
        for (int i = begin; i < end; i += N) {
          for (int k = 0; k < N; ++k) {
            w[k] = formats::span_values<typename Format::reader>(this->planes, this->first_block(first_row + i + k, c));
          }
          auto* sum = sums[(i - begin) / N];
          for (uint64_t b = 0; b < this->boundary; b += row_group) {
            add_products(w, &this->tile[b * span], row_group, sum + b);
          }
          add_products(w, &this->tile[this->boundary * span], Tail, sum + this->boundary);
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
  static constexpr bool has_barriers = Format::stages && !last_finishes;

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = together<8>;
    const uint64_t first_row = item.group() * Group;
    in_steps(item, Group, [&](int begin, int end, auto meet) {
      simd<Half, 64> sums[together<Group>][Rows];
      simd<Half, 64> w[N];
      for (uint64_t c = 0; c < this->spans(); ++c) {
        if constexpr (Format::stages) {
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
        if constexpr (Format::stages) meet();
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
    if constexpr (Format::stages) {
      return simd<Half, 64>::load(&this->tile[span * row + 64 * block]);
    } else {
      return convert<Half>(simd<T, 64>::load(this->input(row, c, block)));
    }
  }
};

// Submits an instance as it was decided, with `tile_rows` rows of local memory.
template <typename Kernel, typename T>
void launch_vector_kernel(const char* unit, const linear_decision& way, const vector_operands& o, uint64_t tile_rows) {
  launch(
      o.device, sycl::nd_range<1>(way.global[0], way.local[0]), {unit, way.kernel},
      [&](sycl::handler& h) {
        Kernel kernel;
        static_cast<vector_arguments<T>&>(kernel) = {o.planes,
                                                     static_cast<const T*>(o.x),
                                                     static_cast<T*>(o.y),
                                                     o.input_size,
                                                     o.state_size,
                                                     o.output_size,
                                                     o.input_size - way.tail,
                                                     {}};
        if (tile_rows > 0) kernel.tile = sycl::local_accessor<Half>(sycl::range<1>(span * tile_rows), h);
        if constexpr (requires { kernel.group; }) kernel.group = static_cast<int>(way.local[0]);
        return kernel;
      },
      way.record, way.waits);
}

template <int N>
struct unit_name {
  char text[N];
  constexpr unit_name(const char (&name)[N]) { std::copy(name, name + N, text); }
};

// The instances of a format, from the names of its two kernels: <T, tail, rows of a group, blocks of a span> and
// <T, rows, blocks of a span, work-items>. A new tail or row count is a new index here and nothing else.
template <unit_name Unit, typename Format, template <typename, int, int, int> typename General,
          template <typename, int, int, int> typename Slim>
constexpr vector_instances instances_of() {
  constexpr bool stages = Format::stages;
  vector_instances all{};
  const auto fill = [&]<typename T, int... I>(int type, T, std::integer_sequence<int, I...>) {
    ((
         all.general[type][I] =
             [](const linear_decision& way, const vector_operands& o) {
               launch_vector_kernel<General<T, I + 1, row_group, blocks_per_span>, T>(Unit.text, way, o, most_rows);
             },
         all.slim[type][I] =
             [](const linear_decision& way, const vector_operands& o) {
               launch_vector_kernel<Slim<T, I + 1, blocks_per_span, slim_group(stages, I + 1)>, T>(Unit.text, way, o,
                                                                                                   stages ? I + 1 : 0);
             }),
     ...);
  };
  fill(0, Half(), std::make_integer_sequence<int, 8>());
  fill(1, float(), std::make_integer_sequence<int, 8>());
  return all;
}

}  // namespace orrery
