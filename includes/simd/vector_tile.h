// The matrix engine's sums in vector registers; includes/matrix_engine.h says what it computes.
#pragma once

#include "vector.h"

namespace orrery::detail {

// A pair of steps of one row is spread over a vector, whose lanes are the pairs of W / 2 columns; so each row has a sum
// for the even steps and one for the odd ones beside it. The two sums come together by two rows at a time: lanes of
// four are {row r: 2 columns, row r + 1: the same 2 columns}. An operation has `Steps` steps; rows of A lie `Stride`
// apart.
template <int R, int N, int Steps, int Stride>
class vector_tile {
  static constexpr int W = machine::lanes<float, 2 * N>;
  static constexpr int V = 2 * N / W;  // vectors of a pair of steps for all columns
  static constexpr int row_pairs = (R + 1) / 2;
  // With 32 registers all columns of 8 rows are summed at once, else those of one vector.
  static constexpr int at_once = W == 16 ? V : 1;
  using vector = machine::vector<float, W>;
  using index = machine::vector<int32_t, W>;

 public:
  ORRERY_INLINE void multiply_add(const float* a, const float* b) {
    for (int v = 0; v < V; v += at_once) add_columns(a, b, v);
  }
  ORRERY_INLINE void add_scaled(const vector_tile& acc, const simd<float, N>& d) {
    alignas(64) float columns[2 * N] = {};
    d.store(columns);
    ORRERY_UNROLL for (int v = 0; v < V; ++v) {
      const vector scale = for_both_rows(machine::load<float, W>(columns + v * (W / 2)));
      ORRERY_UNROLL for (int p = 0; p < row_pairs; ++p) {
        const vector product = acc.acc_[p][v] * scale;
        acc_[p][v] = acc_[p][v] + product;
      }
    }
  }
  simd<float, N> row(int r) const {
    alignas(64) float columns[N];
    for (int j = 0; j < N; ++j) {
      const int lane = j % (W / 2) / 2 * 4 + r % 2 * 2 + j % 2;
      columns[j] = machine::get<float, W>(acc_[r / 2][j / (W / 2)], lane);
    }
    return simd<float, N>::load(columns);
  }

 private:
  ORRERY_INLINE static vector spread_pair(const float* p) {
    int64_t pair;
    std::memcpy(&pair, p, sizeof pair);
    const auto spread = machine::broadcast<int64_t, W / 2>(pair);
    vector v;
    std::memcpy(&v, &spread, sizeof v);
    return v;
  }
  // Even lanes of x and y by fours, {x0, x2, y0, y2}, and the odd ones.
  template <int Odd>
  ORRERY_INLINE static vector pick(const vector& x, const vector& y) {
    const index i = machine::iota<int32_t, W>(), one = machine::broadcast<int32_t, W>(1);
    const index lane = (i & machine::broadcast<int32_t, W>(~3)) + ((i & one) << one);
    return machine::permute2<float, W>(x, y, lane + ((i >> one) & one) * W + Odd);
  }
  // Twice each pair of columns of the lower half.
  ORRERY_INLINE static vector for_both_rows(const vector& columns) {
    const index i = machine::iota<int32_t, W>(), one = machine::broadcast<int32_t, W>(1);
    return machine::permute<float, W>(columns, ((i >> (one + one)) << one) + (i & one));
  }
  ORRERY_INLINE void add_columns(const float* a, const float* b, int first) {
    vector sum[2 * row_pairs][at_once] = {};
    ORRERY_UNROLL for (int p = 0; p < Steps / 2; ++p) {
      vector column[at_once];
      ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
        column[v] = machine::load<float, W>(b + p * 2 * N + (first + v) * W);
      }
      ORRERY_UNROLL for (int r = 0; r < R; ++r) {
        const vector pair = spread_pair(a + r * Stride + 2 * p);
        ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
          sum[r][v] = p == 0 ? pair * column[v] : machine::multiply_add<W>(pair, column[v], sum[r][v]);
        }
      }
    }
    ORRERY_UNROLL for (int p = 0; p < row_pairs; ++p) {
      ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
        const vector ended = pick<0>(sum[2 * p][v], sum[2 * p + 1][v]) + pick<1>(sum[2 * p][v], sum[2 * p + 1][v]);
        acc_[p][first + v] = acc_[p][first + v] + ended;
      }
    }
  }

  vector acc_[row_pairs][V] = {};
};

}  // namespace orrery::detail
