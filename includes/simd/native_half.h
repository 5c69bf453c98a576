// Halves where the machine computes in half: every operation rounds once, so the bits are those of simd<c10::Half, N>,
// for half the registers and without the conversions. On other machines native_half is c10::Half itself.
#pragma once

#include "conversion.h"
#include "fold.h"

namespace orrery {

#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_PORTABLE_VECTORS) && defined(__AVX512FP16__)
using native_half = _Float16;

// As for other types. Down to two lanes a row they move in pairs: one permutation of words instead of three operations.
template <int N>
inline simd<native_half, N> fold_each(const simd<native_half, N> (&row)[N]) {
  using half_vector = machine::vector<native_half, N>;
  using word_vector = machine::vector<int32_t, N / 2>;
  half_vector v[N];
  ORRERY_UNROLL for (int i = 0; i < N; ++i) v[i] = row[i].v[0];
  const auto pair = machine::iota<int32_t, N / 2>();
  ORRERY_UNROLL for (int h = N / 2; h >= 2; h /= 2) {
    const auto group = pair / (h / 2), low = group * h + (pair - group * (h / 2));
    ORRERY_UNROLL for (int i = 0; i < h; ++i) {
      const auto a = detail::bits_as<word_vector>(v[2 * i]), b = detail::bits_as<word_vector>(v[2 * i + 1]);
      v[i] = detail::bits_as<half_vector>(machine::permute2<int32_t, N / 2>(a, b, low)) +
             detail::bits_as<half_vector>(machine::permute2<int32_t, N / 2>(a, b, low + h / 2));
    }
  }
  const auto lane = machine::iota<int16_t, N>();
  const machine::vector<int16_t, N> even = lane * int16_t(2);
  simd<native_half, N> r;
  r.v[0] = machine::permute2<native_half, N>(v[0], v[1], even) +
           machine::permute2<native_half, N>(v[0], v[1], even + int16_t(1));
  return r;
}
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
