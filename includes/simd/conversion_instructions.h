// Conversions of one machine vector's lanes, and lanes moved to other places.
#pragma once

#include <c10/util/Half.h>

#include <cstring>

#include "machine_vector.h"

namespace orrery {

namespace detail {

// The zero-masking forms of intrinsics with a full mask compile to the plain instruction; GCC's plain forms start from
// an operand that it warns about.

// Elementwise conversion. GCC 12 takes conversions that change the element's size apart lane by lane, so the ones in
// hot loops are named here.
template <typename To, typename From, int W>
inline vector_t<To, W> convert_vector(vector_t<From, W> v) {
  if constexpr (W == 1) {
    return static_cast<To>(v);
  } else {
#ifdef __AVX512F__
    constexpr bool to_32 = std::is_integral_v<To> && sizeof(To) == 4;
    if constexpr (W == 16 && to_32 && std::is_same_v<From, uint8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, int8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, uint16_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu16_epi32(0xFFFF, (__m256i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, uint32_t> && std::is_same_v<To, uint16_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_epi16(0xFFFF, (__m512i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, int32_t> && std::is_same_v<To, int8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_epi8(0xFFFF, (__m512i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, float> && std::is_same_v<To, double>) {
      return (vector_t<To, W>)_mm512_maskz_cvtps_pd(0xFF, (__m256)v);
    } else if constexpr (W == 8 && std::is_same_v<From, double> && std::is_same_v<To, float>) {
      return (vector_t<To, W>)_mm512_maskz_cvtpd_ps(0xFF, (__m512d)v);
    } else if constexpr (W == 8 && std::is_same_v<From, uint32_t> && std::is_same_v<To, int64_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu32_epi64(0xFF, (__m256i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, int32_t> && std::is_same_v<To, double>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_pd(0xFF, (__m256i)v);
    }
#endif
    constexpr bool by_word = sizeof(From) == 1 && sizeof(To) >= 4 && !(std::is_integral_v<To> && sizeof(To) == 4);
    if constexpr (by_word) {
      return convert_vector<To, int32_t, W>(convert_vector<int32_t, From, W>(v));
    } else {
      return __builtin_convertvector(v, vector_t<To, W>);
    }
  }
}

// Float to the nearest half, ties to even, and back.
template <int W>
inline vector_t<float, W> round_half(vector_t<float, W> v) {
#ifdef __AVX512F__
  if constexpr (W == 16) {
    return (vector_t<float, 16>)_mm512_maskz_cvtph_ps(
        0xFFFF, _mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT));
  }
#endif
#ifdef __F16C__
  if constexpr (W == 8) {
    return (vector_t<float, 8>)_mm256_cvtph_ps(_mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT));
  } else if constexpr (W == 4) {
    return (vector_t<float, 4>)_mm_cvtph_ps(_mm_cvtps_ph((__m128)v, _MM_FROUND_TO_NEAREST_INT));
  } else if constexpr (W == 1) {
    return _cvtsh_ss(_cvtss_sh(v, _MM_FROUND_TO_NEAREST_INT));
  }
#endif
  if constexpr (W == 1) {
    return static_cast<float>(c10::Half(v));
  } else {
    for (int i = 0; i < W; ++i) v[i] = round_half<1>(v[i]);
    return v;
  }
}

// A short vector of 32-bit elements in the low lanes of one of W; the lanes above are anything. Up to 16 bytes stay in
// registers: through memory the wide load waits for the narrow store, 8% of a q4_0 product of 576-element rows. For 32
// bytes, what the compiler makes of a register cast was measured 25% slower than memory.
template <int W, typename V>
inline auto low_lanes(V few) {
  using E = std::remove_cvref_t<decltype(few[0])>;
  vector_t<E, W> wide{};
#ifdef __AVX512F__
  if constexpr (W == 16 && sizeof few == 16) {
    return (vector_t<E, W>)_mm512_castps128_ps512((__m128)few);
  } else if constexpr (W == 16 && sizeof few == 8) {
    int64_t bits;
    std::memcpy(&bits, &few, sizeof bits);
    return (vector_t<E, W>)_mm512_castps128_ps512(_mm_castsi128_ps(_mm_cvtsi64_si128(bits)));
  }
#endif
  std::memcpy(&wide, &few, sizeof few);
  return wide;
}

template <int First, int W, typename V, int... I>
inline auto lanes_of_vector(V v, std::integer_sequence<int, I...>) {
  return __builtin_shufflevector(v, v, (First + I)...);
}

}  // namespace detail

}  // namespace orrery
