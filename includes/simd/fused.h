// a * b + c with one rounding, for vectors of floats.
#pragma once

#include "includes/simd.h"

namespace orrery::detail {

// For products that a float holds exactly, as those of two halves and of two bfloat16: there the one rounding is that
// of the sum, and what the machine's instruction gives is what a product and a sum give without it.
template <int W>
ORRERY_INLINE inline vector_t<float, W> fused(vector_t<float, W> a, vector_t<float, W> b, vector_t<float, W> c) {
#ifdef __AVX512F__
  if constexpr (W == 16) return (vector_t<float, W>)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
#endif
#ifdef __FMA__
  if constexpr (W == 8) return (vector_t<float, W>)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
  if constexpr (W == 4) return (vector_t<float, W>)_mm_fmadd_ps((__m128)a, (__m128)b, (__m128)c);
#endif
  return a * b + c;
}

}  // namespace orrery::detail
