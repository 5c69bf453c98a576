// The matrix engine: acc += A x B for up to 8 rows of A, 16 steps of K, and 8 or 16 columns of B. A and B are both half
// or both bfloat16; acc is float.
#pragma once

#include <sycl/sycl.hpp>

#include "includes/simd.h"
#include "includes/simd/block_product.h"

namespace orrery::matrix_engine {

constexpr int steps = 16;     // of K per operation
constexpr int tile_rows = 8;  // of A, at most
constexpr int block = 64;     // steps of K in an operand block: four operations
constexpr int operations = block / steps;

// An operation sums its 16 products in order and adds the sum to the accumulator. Any other order would do, as long as
// one operation ends before the next begins. Both implementations below use this one, so they give the same bits.

// For devices without a matrix engine. A build for a device that has one puts its instruction into multiply_add, with
// repeat count R and systolic depth 8. It takes R * 16 elements of A, and B as 32-bit units: unit p * N + j holds steps
// 2p and 2p + 1 of column j.
template <int R, int N>
class tile {
 public:
  // acc += A x B; row r of A starts at a + r * block.
  template <typename C>
  void multiply_add(const C* a, const C* b) {
    for (int r = 0; r < R; ++r) {
      for (int j = 0; j < N; ++j) {
        float sum = 0.0f;
        for (int k = 0; k < steps; ++k) {
          sum += static_cast<float>(a[r * block + k]) * static_cast<float>(b[(k / 2 * N + j) * 2 + k % 2]);
        }
        acc_[r][j] += sum;
      }
    }
  }
  // this += acc * d per column; product and sum are rounded separately.
  void add_scaled(const tile& acc, const simd<float, N>& d) {
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

// sum += (A x B) * d for a whole block: the accumulator starts at zero and is multiplied by the scales once.
template <int R, int N, typename C>
void add_block(tile<R, N>& sum, const C* a, const C* b, const simd<float, N>& d) {
  tile<R, N> acc;
  for (int q = 0; q < operations; ++q) acc.multiply_add(a + q * steps, b + q * steps * N);
  sum.add_scaled(acc, d);
}

// On the host: columns of several work-groups side by side, and operands as floats, which hold both types exactly.
constexpr int host_columns = 32;

// The same for R rows of `Columns` sums; step k of B has its columns from b + k * Columns on.
template <int R, int Columns>
__attribute__((noinline)) void add_block(const float* a, const float* b, const float* d, float* sum) {
  orrery::detail::block_product<R, Columns, operations, steps>::add(a, b, d, sum);
}

}  // namespace orrery::matrix_engine
