// The matrix engine: acc += A x B for up to 8 rows of A, 16 steps of K, and 8 or 16 columns of B. A is half or
// bfloat16, B the same, acc is float.
//
// A device that has such a unit takes B as 32-bit units: unit p * N + j holds steps 2p and 2p + 1 of column j. Operands
// keep that order of elements everywhere.
#pragma once

#include <sycl/sycl.hpp>
#include <utility>

#include "includes/simd.h"
#include "includes/simd/fused.h"

namespace orrery {

namespace matrix_engine {

constexpr int steps = 16;     // of K, in one operation
constexpr int tile_rows = 8;  // of A at most
constexpr int block = 64;     // steps of the operands that lie together: four operations
constexpr int operations = block / steps;

// What an operand holds an element of C in. The host multiplies floats, which hold both types exactly.
#ifdef SYCL_EXT_ORRERY_HOST
template <typename C>
using operand_element = float;
#else
template <typename C>
using operand_element = C;
#endif

// R rows of N accumulators. Both kinds have
//   multiply_add(a, b)   acc += A x B; row r of A starts at a + r * block
//   add_scaled(acc, d)   this += acc * d lane by lane, a product and a sum, each rounded
//   row(r)               the sums of row r
// and give the same bits: of each operation's 16 products the even ones are summed in order, and the odd ones, then
// these two sums, and the accumulator is added last. Any other order would do, as long as one operation ends before the
// next.

// One element after another, as any device can. A build for a device with a matrix engine puts its instruction into
// multiply_add, with repeat count R and systolic depth 8; what it takes for A and B are their R * 16 and 16 * N
// elements.
template <int R, int N>
class plain_tile {
 public:
  template <typename E>
  void multiply_add(const E* a, const E* b) {
    for (int r = 0; r < R; ++r) {
      for (int j = 0; j < N; ++j) {
        float sum[2] = {};
        for (int k = 0; k < steps; ++k) {
          sum[k % 2] += static_cast<float>(a[r * block + k]) * static_cast<float>(b[(k / 2 * N + j) * 2 + k % 2]);
        }
        acc_[r][j] += sum[0] + sum[1];
      }
    }
  }
  void add_scaled(const plain_tile& acc, const simd<float, N>& d) {
    for (int r = 0; r < R; ++r) {
      for (int j = 0; j < N; ++j) {
        const float product = acc.acc_[r][j] * d[j];
        acc_[r][j] += product;
      }
    }
  }
  simd<float, N> row(int r) const { return simd<float, N>::load(acc_[r]); }

 private:
  float acc_[R][N] = {};
};

#ifdef SYCL_EXT_ORRERY_HOST
// In vector registers. A pair of steps of one row is spread over a vector, whose lanes are the pairs of W / 2 columns;
// so each row has a sum for the even steps and one for the odd ones beside it. The two sums come together by two rows
// at a time: lanes of four are {row r: 2 columns, row r + 1: the same 2 columns}.
template <int R, int N>
class vector_tile {
  static constexpr int W = simd<float, 2 * N>::W;  // floats of a machine vector
  static constexpr int V = 2 * N / W;              // vectors of a pair of steps for all columns
  static constexpr int row_pairs = (R + 1) / 2;
  // With 32 registers all columns of 8 rows are summed at once, else those of one vector.
  static constexpr int at_once = W == 16 ? V : 1;
  using vector = detail::vector_t<float, W>;

 public:
  ORRERY_INLINE void multiply_add(const float* a, const float* b) {
    for (int v = 0; v < V; v += at_once) add_columns(a, b, v);
  }
  ORRERY_INLINE void add_scaled(const vector_tile& acc, const simd<float, N>& d) {
    alignas(64) float columns[2 * N] = {};
    d.store(columns);
    ORRERY_UNROLL for (int v = 0; v < V; ++v) {
      vector some;
      std::memcpy(&some, columns + v * (W / 2), sizeof some);
      const vector scale = for_both_rows(some, std::make_integer_sequence<int, W>());
      ORRERY_UNROLL for (int p = 0; p < row_pairs; ++p) acc_[p][v] += acc.acc_[p][v] * scale;
    }
  }
  simd<float, N> row(int r) const {
    alignas(64) float columns[N];
    for (int j = 0; j < N; ++j) columns[j] = acc_[r / 2][j / (W / 2)][j % (W / 2) / 2 * 4 + r % 2 * 2 + j % 2];
    return simd<float, N>::load(columns);
  }

 private:
  ORRERY_INLINE static vector spread_pair(const float* p) {
    int64_t pair;
    std::memcpy(&pair, p, sizeof pair);
    const auto spread = detail::vector_t<int64_t, W / 2>{} + pair;
    vector v;
    std::memcpy(&v, &spread, sizeof v);
    return v;
  }
  // Even lanes of x and y by fours, {x0, x2, y0, y2}, and the odd ones.
  template <int Odd, int... I>
  ORRERY_INLINE static vector pick(vector x, vector y, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(x, y, (I / 4 * 4 + I % 2 * 2 + I % 4 / 2 * W + Odd)...);
  }
  // Twice each pair of columns of the lower half.
  template <int... I>
  ORRERY_INLINE static vector for_both_rows(vector columns, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(columns, columns, (I / 4 * 2 + I % 2)...);
  }
  ORRERY_INLINE void add_columns(const float* a, const float* b, int first) {
    vector sum[2 * row_pairs][at_once] = {};
    ORRERY_UNROLL for (int p = 0; p < steps / 2; ++p) {
      vector column[at_once];
      ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
        std::memcpy(&column[v], b + p * 2 * N + (first + v) * W, sizeof(vector));
      }
      ORRERY_UNROLL for (int r = 0; r < R; ++r) {
        const vector pair = spread_pair(a + r * block + 2 * p);
        ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
          sum[r][v] = p == 0 ? pair * column[v] : detail::fused<W>(pair, column[v], sum[r][v]);
        }
      }
    }
    constexpr auto lanes = std::make_integer_sequence<int, W>();
    ORRERY_UNROLL for (int p = 0; p < row_pairs; ++p) {
      ORRERY_UNROLL for (int v = 0; v < at_once; ++v) {
        acc_[p][first + v] +=
            pick<0>(sum[2 * p][v], sum[2 * p + 1][v], lanes) + pick<1>(sum[2 * p][v], sum[2 * p + 1][v], lanes);
      }
    }
  }

  vector acc_[row_pairs][V] = {};
};
#endif

// The scalar items take the plain one, which is thereby proven.
#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_HOST_ITEMS_SCALAR)
template <int R, int N>
using tile = vector_tile<R, N>;
#else
template <int R, int N>
using tile = plain_tile<R, N>;
#endif

// sum += (A x B) * d for a whole block: the accumulator starts from zero, and the scales multiply it once.
template <int R, int N, typename E>
__attribute__((noinline)) void add_block(tile<R, N>& sum, const E* a, const E* b, const simd<float, N>& d) {
  tile<R, N> acc;
  for (int q = 0; q < operations; ++q) acc.multiply_add(a + q * steps, b + q * steps * N);
  sum.add_scaled(acc, d);
}

}  // namespace matrix_engine

}  // namespace orrery
