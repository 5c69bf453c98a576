// The matrix engine: acc += A x B for up to 8 rows of A, 16 steps of K, and 8 or 16 columns of B. A is half or
// bfloat16, B the same, acc is float.
//
// A device that has such a unit takes B as 32-bit units: unit p * N + j holds steps 2p and 2p + 1 of column j. Operands
// keep that order of elements everywhere.
#pragma once

#include <sycl/sycl.hpp>

#include "includes/simd.h"
#include "includes/simd/vector_tile.h"

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

// The scalar items take the plain one, which is thereby proven.
#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_HOST_ITEMS_SCALAR)
template <int R, int N>
using tile = detail::vector_tile<R, N, steps, block>;
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
