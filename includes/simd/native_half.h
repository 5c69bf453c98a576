// Halves where the machine computes in half: every operation rounds once, so the bits are those of simd<c10::Half, N>,
// for half the registers and without the conversions. On other machines native_half is c10::Half itself.
#pragma once

#include "conversion.h"

namespace orrery {

#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_PORTABLE_VECTORS) && defined(__AVX512FP16__)
using native_half = _Float16;
#else
using native_half = c10::Half;
#endif

// T as the machine computes it.
template <typename T>
using native_type = std::conditional_t<std::is_same_v<T, c10::Half>, native_half, T>;

template <int N, typename T>
inline simd<native_type<T>, N> load_native(const T* p) {
  return simd<native_type<T>, N>::load(reinterpret_cast<const native_type<T>*>(p));
}
template <typename T, int N>
inline void store_native(const simd<native_type<T>, N>& a, T* p) {
  a.store(reinterpret_cast<native_type<T>*>(p));
}
// The same values, through memory.
template <typename T, int N>
inline simd<native_type<T>, N> to_native(const simd<T, N>& a) {
  if constexpr (std::is_same_v<native_type<T>, T>) {
    return a;
  } else {
    alignas(64) T lane[N];
    a.store(lane);
    return load_native<N>(lane);
  }
}
template <typename T, int N>
inline simd<T, N> from_native(const simd<native_type<T>, N>& a) {
  if constexpr (std::is_same_v<native_type<T>, T>) {
    return a;
  } else {
    alignas(64) T lane[N];
    store_native(a, lane);
    return simd<T, N>::load(lane);
  }
}

}  // namespace orrery
