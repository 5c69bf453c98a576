// Block products of the matrix engine in vector registers; includes/matrix_engine.h defines them.
#pragma once

#include "vector.h"

namespace orrery::detail {

// sum += (A x B) * d for a block of Operations x Steps steps, R rows of A and `Columns` columns of B. Rows of A are as
// long as the block; the columns of B, d and sum are contiguous.
template <int R, int Columns, int Operations, int Steps>
class block_product {
  static constexpr int W = machine::lanes<float, Columns>;
  static constexpr int vectors = Columns / W;
  // Vectors of columns that share each element of A: two with 32 registers, else one.
  static constexpr int together = W == 16 && vectors % 2 == 0 ? 2 : 1;
  using vector = machine::vector<float, W>;

 public:
  ORRERY_INLINE static void add(const float* a, const float* b, const float* d, float* sum) {
    for (int v = 0; v < vectors; v += together) add_columns(a, b + v * W, d + v * W, sum + v * W);
  }

 private:
  static void add_columns(const float* a, const float* b, const float* d, float* sum) {
    vector acc[R][together];
    for (int q = 0; q < Operations; ++q, a += Steps, b += Steps * Columns) {
      vector product[R][together] = {};
      ORRERY_UNROLL for (int k = 0; k < Steps; ++k) {
        vector column[together];
        ORRERY_UNROLL for (int v = 0; v < together; ++v) column[v] = machine::load<float, W>(b + k * Columns + v * W);
        ORRERY_UNROLL for (int r = 0; r < R; ++r) {
          const vector element = machine::broadcast<float, W>(a[r * Operations * Steps + k]);
          ORRERY_UNROLL for (int v = 0; v < together; ++v) {
            product[r][v] = machine::multiply_add<W>(element, column[v], product[r][v]);
          }
        }
      }
      ORRERY_UNROLL for (int r = 0; r < R; ++r) {
        ORRERY_UNROLL for (int v = 0; v < together; ++v) {
          acc[r][v] = q == 0 ? product[r][v] : acc[r][v] + product[r][v];
        }
      }
      machine::hold_in_memory(acc);  // leaves the registers to the products
    }
    ORRERY_UNROLL for (int v = 0; v < together; ++v) {
      const vector scale = machine::load<float, W>(d + v * W);
      ORRERY_UNROLL for (int r = 0; r < R; ++r) {
        float* to = sum + r * Columns + v * W;
        const vector scaled = acc[r][v] * scale;
        machine::store<float, W>(to, machine::load<float, W>(to) + scaled);
      }
    }
  }
};

}  // namespace orrery::detail
