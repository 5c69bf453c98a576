// Square root.
#pragma once

#include "vector.h"

namespace orrery {

template <typename T, int N>
inline simd<T, N> sqrt(const simd<T, N>& a) {
  simd<T, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, T(std::sqrt(a.held_at(i))));
  return r;
}

}  // namespace orrery
