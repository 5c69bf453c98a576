// AVX-512 with arithmetic in half (FP16): vectors of 32 halves. Compiler vectors of _Float16 have all of the
// arithmetic; here are the conversions and permutations that GCC 12 compiles to poor code.
#pragma once

#include <bit>

#include "avx512_bytes.h"

namespace orrery {

struct avx512_half : avx512_bytes {
  static constexpr const char* name = "avx512_half";

  template <typename To, typename From, int W>
  static vector<To, W> convert(vector<From, W> v) {
    constexpr bool from_half = std::is_same_v<From, _Float16>, to_half = std::is_same_v<To, _Float16>;
    // GCC converts these one by one: 10% of a q4_0 product in float, for its scales, and nine tenths of an
    // explicit-SIMD kernel with float inputs.
    if constexpr (from_half && std::is_same_v<To, float> && W == 4) {
      return (vector<float, 4>)_mm_cvtph_ps(_mm_cvtsi64_si128(std::bit_cast<int64_t>(v)));
    } else if constexpr (from_half && std::is_same_v<To, float> && W == 8) {
      return (vector<float, 8>)_mm256_cvtph_ps((__m128i)v);
    } else if constexpr (from_half && std::is_same_v<To, float> && W == 16) {
      return (vector<float, 16>)_mm512_maskz_cvtph_ps(0xFFFF, (__m256i)v);
    } else if constexpr (to_half && std::is_same_v<From, float> && W == 4) {
      const auto bits = (vector<int64_t, 2>)_mm_cvtps_ph((__m128)v, _MM_FROUND_TO_NEAREST_INT);
      return std::bit_cast<vector<_Float16, 4>>(bits[0]);
    } else if constexpr (to_half && std::is_same_v<From, float> && W == 8) {
      return (vector<_Float16, 8>)_mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT);
    } else if constexpr (to_half && std::is_same_v<From, float> && W == 16) {
      return (vector<_Float16, 16>)_mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT);
    } else if constexpr ((to_half && sizeof(From) == 1) || (from_half && sizeof(To) == 1)) {
      return convert<To, int16_t, W>(convert<int16_t, From, W>(v));
    } else if constexpr (W == 16 && std::is_same_v<To, int16_t> && std::is_same_v<From, int8_t>) {
      return (vector<To, W>)_mm256_maskz_cvtepi8_epi16(0xFFFF, (__m128i)v);
    } else if constexpr (W == 32 && std::is_same_v<To, int16_t> && std::is_same_v<From, int8_t>) {
      return (vector<To, W>)_mm512_maskz_cvtepi8_epi16(~0u, (__m256i)v);
    } else if constexpr (W == 16 && std::is_same_v<To, int16_t> && std::is_same_v<From, uint8_t>) {
      return (vector<To, W>)_mm256_maskz_cvtepu8_epi16(0xFFFF, (__m128i)v);
    } else if constexpr (W == 32 && std::is_same_v<To, int16_t> && std::is_same_v<From, uint8_t>) {
      return (vector<To, W>)_mm512_maskz_cvtepu8_epi16(~0u, (__m256i)v);
    } else if constexpr ((from_half && !half_converts<To>) || (to_half && !half_converts<From>)) {
      // Through float, which also rounds a double as elsewhere: twice.
      return avx512_bytes::convert<To, float, W>(avx512_bytes::convert<float, From, W>(v));
    } else {
      return avx512_bytes::convert<To, From, W>(v);
    }
  }

  // In a register, as with vectors of 64 bytes.
  template <typename S, int M, int W>
  static vector<S, W> widen(vector<S, M> few) {
    if constexpr (W * sizeof(S) == 32 && sizeof few <= 8) {
      int64_t bits = 0;
      std::memcpy(&bits, &few, sizeof few);
      return (vector<S, W>)_mm256_castsi128_si256(_mm_cvtsi64_si128(bits));
    } else {
      return avx512_bytes::widen<S, M, W>(few);
    }
  }

#ifndef __clang__
  // GCC's own builtin takes two registers of 16-bit lanes even for one.
  template <typename S, int W>
  static vector<S, W> permute(vector<S, W> a, vector<detail::int_like<S>, W> index) {
    if constexpr (sizeof(S) == 2 && W == 32) {
      return (vector<S, W>)_mm512_maskz_permutexvar_epi16(~0u, (__m512i)index, (__m512i)a);
    } else if constexpr (sizeof(S) == 2 && W == 16) {
      return (vector<S, W>)_mm256_maskz_permutexvar_epi16(0xFFFF, (__m256i)index, (__m256i)a);
    } else {
      return avx512_bytes::permute<S, W>(a, index);
    }
  }
#endif

 private:
  template <typename S>
  static constexpr bool half_converts = std::is_same_v<S, float> || std::is_same_v<S, _Float16> || sizeof(S) == 2;
};

}  // namespace orrery
