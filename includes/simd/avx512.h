// AVX-512 (F, BW, DQ, VL): vectors of 64 bytes, masks in mask registers.
//
// The zero-masking forms of intrinsics with a full mask compile to the plain instruction; GCC warns about the undefined
// operand of its plain forms.
#pragma once

#include "avx2.h"

namespace orrery {

struct avx512 : avx2 {
  static constexpr const char* name = "avx512";

  template <typename S, int N>
  static constexpr int lanes = lanes_within<S, N>(64);

  template <typename S, int W>
  static constexpr bool permutes = (sizeof(S) == 4 && W > 1) || (sizeof(S) == 2 && W >= 8);

  template <int W>
  static vector<float, W> multiply_add(vector<float, W> a, vector<float, W> b, vector<float, W> c) {
    if constexpr (W == 16) {
      return (vector<float, W>)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
    } else {
      return avx2::multiply_add<W>(a, b, c);
    }
  }

  // GCC 12 compiles conversions that change the element size lane by lane, so those in hot loops use intrinsics.
  template <typename To, typename From, int W>
  static vector<To, W> convert(vector<From, W> v) {
    using V = vector<To, W>;
    constexpr bool to_32 = std::is_integral_v<To> && sizeof(To) == 4;
    if constexpr (W == 16 && to_32 && std::is_same_v<From, uint8_t>) {
      return (V)_mm512_maskz_cvtepu8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, int8_t>) {
      return (V)_mm512_maskz_cvtepi8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, uint16_t>) {
      return (V)_mm512_maskz_cvtepu16_epi32(0xFFFF, (__m256i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, uint32_t> && std::is_same_v<To, uint16_t>) {
      return (V)_mm512_maskz_cvtepi32_epi16(0xFFFF, (__m512i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, int32_t> && std::is_same_v<To, int8_t>) {
      return (V)_mm512_maskz_cvtepi32_epi8(0xFFFF, (__m512i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, float> && std::is_same_v<To, double>) {
      return (V)_mm512_maskz_cvtps_pd(0xFF, (__m256)v);
    } else if constexpr (W == 8 && std::is_same_v<From, double> && std::is_same_v<To, float>) {
      return (V)_mm512_maskz_cvtpd_ps(0xFF, (__m512d)v);
    } else if constexpr (W == 8 && std::is_same_v<From, uint32_t> && std::is_same_v<To, int64_t>) {
      return (V)_mm512_maskz_cvtepu32_epi64(0xFF, (__m256i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, int32_t> && std::is_same_v<To, double>) {
      return (V)_mm512_maskz_cvtepi32_pd(0xFF, (__m256i)v);
    } else if constexpr (W > 1 && sizeof(From) == 1 && sizeof(To) >= 4 && !to_32) {
      return convert<To, int32_t, W>(convert<int32_t, From, W>(v));
    } else {
      return compiler_vectors::convert<To, From, W>(v);
    }
  }

  template <int W>
  static vector<float, W> round_half(vector<float, W> v) {
    if constexpr (W == 16) {
      return (vector<float, 16>)_mm512_maskz_cvtph_ps(
          0xFFFF, _mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT));
    } else {
      return avx2::round_half<W>(v);
    }
  }

  template <typename T, int W>
  static vector<register_type<T>, W> load(const T* p) {
    if constexpr (std::is_same_v<T, c10::Half> && is_widened<T> && W == 16) {
      return (vector<float, 16>)_mm512_maskz_cvtph_ps(0xFFFF, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
    } else {
      return avx2::load<T, W>(p);
    }
  }
  template <typename T, int W>
  static void store(T* p, vector<register_type<T>, W> v) {
    if constexpr (std::is_same_v<T, c10::Half> && is_widened<T> && W == 16) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                          _mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT));
    } else {
      avx2::store<T, W>(p, v);
    }
  }
  template <typename T, int W>
  static void copy_from_some(T* to, const T* from, uint64_t bits) {
    constexpr int bytes = W * sizeof(T), size = sizeof(T);
    const auto keep = [&](auto v) { std::memcpy(static_cast<void*>(to), &v, sizeof v); };
    if constexpr (bytes == 64 && size == 1) {
      keep(_mm512_maskz_loadu_epi8(bits, from));
    } else if constexpr (bytes == 64 && size == 2) {
      keep(_mm512_maskz_loadu_epi16(bits, from));
    } else if constexpr (bytes == 64 && size == 4) {
      keep(_mm512_maskz_loadu_epi32(bits, from));
    } else if constexpr (bytes == 64 && size == 8) {
      keep(_mm512_maskz_loadu_epi64(bits, from));
    } else if constexpr (bytes == 32 && size == 2) {
      keep(_mm256_maskz_loadu_epi16(bits, from));
    } else if constexpr (bytes == 32 && size == 4) {
      keep(_mm256_maskz_loadu_epi32(bits, from));
    } else if constexpr (bytes == 16 && size == 1) {
      keep(_mm_maskz_loadu_epi8(bits, from));
    } else if constexpr (bytes == 16 && size == 2) {
      keep(_mm_maskz_loadu_epi16(bits, from));
    } else {
      avx2::copy_from_some<T, W>(to, from, bits);
    }
  }
  template <typename T, int W>
  static void copy_to_some(T* to, const T* from, uint64_t bits) {
    constexpr int bytes = W * sizeof(T), size = sizeof(T);
    if constexpr (bytes == 64 && size == 1) {
      _mm512_mask_storeu_epi8(to, bits, _mm512_load_si512(from));
    } else if constexpr (bytes == 64 && size == 2) {
      _mm512_mask_storeu_epi16(to, bits, _mm512_load_si512(from));
    } else if constexpr (bytes == 64 && size == 4) {
      _mm512_mask_storeu_epi32(to, bits, _mm512_load_si512(from));
    } else if constexpr (bytes == 64 && size == 8) {
      _mm512_mask_storeu_epi64(to, bits, _mm512_load_si512(from));
    } else if constexpr (bytes == 32 && size == 2) {
      _mm256_mask_storeu_epi16(to, bits, _mm256_load_si256(reinterpret_cast<const __m256i*>(from)));
    } else if constexpr (bytes == 32 && size == 4) {
      _mm256_mask_storeu_epi32(to, bits, _mm256_load_si256(reinterpret_cast<const __m256i*>(from)));
    } else if constexpr (bytes == 16 && size == 1) {
      _mm_mask_storeu_epi8(to, bits, _mm_load_si128(reinterpret_cast<const __m128i*>(from)));
    } else if constexpr (bytes == 16 && size == 2) {
      _mm_mask_storeu_epi16(to, bits, _mm_load_si128(reinterpret_cast<const __m128i*>(from)));
    } else {
      avx2::copy_to_some<T, W>(to, from, bits);
    }
  }

  template <typename S, int W, typename Comparison>
  static uint64_t mask_bits(const Comparison& m) {
    constexpr int bytes = W * sizeof(S), size = sizeof(S);
    if constexpr (bytes == 64 && size == 1) {
      return _mm512_movepi8_mask((__m512i)m);
    } else if constexpr (bytes == 64 && size == 2) {
      return _mm512_movepi16_mask((__m512i)m);
    } else if constexpr (bytes == 64 && size == 4) {
      return _mm512_movepi32_mask((__m512i)m);
    } else if constexpr (bytes == 64 && size == 8) {
      return _mm512_movepi64_mask((__m512i)m);
    } else if constexpr (bytes == 32 && size == 1) {
      return static_cast<uint32_t>(_mm256_movepi8_mask((__m256i)m));
    } else if constexpr (bytes == 32 && size == 2) {
      return _mm256_movepi16_mask((__m256i)m);
    } else if constexpr (bytes == 32 && size == 4) {
      return _mm256_movepi32_mask((__m256i)m);
    } else if constexpr (bytes == 32 && size == 8) {
      return _mm256_movepi64_mask((__m256i)m);
    } else if constexpr (bytes == 16 && size == 1) {
      return _mm_movepi8_mask((__m128i)m);
    } else if constexpr (bytes == 16 && size == 4) {
      return _mm_movepi32_mask((__m128i)m);
    } else {
      return avx2::mask_bits<S, W>(m);
    }
  }
  template <typename S, int W>
  static vector<S, W> blend(uint64_t bits, vector<S, W> yes, vector<S, W> no) {
    using V = vector<S, W>;
    constexpr int bytes = sizeof(V), size = sizeof(S);
    if constexpr (bytes == 64 && size == 1) {
      return (V)_mm512_mask_blend_epi8(bits, (__m512i)no, (__m512i)yes);
    } else if constexpr (bytes == 64 && size == 2) {
      return (V)_mm512_mask_blend_epi16(bits, (__m512i)no, (__m512i)yes);
    } else if constexpr (bytes == 64 && size == 4) {
      return (V)_mm512_mask_blend_epi32(bits, (__m512i)no, (__m512i)yes);
    } else if constexpr (bytes == 64 && size == 8) {
      return (V)_mm512_mask_blend_epi64(bits, (__m512i)no, (__m512i)yes);
    } else if constexpr (bytes == 32 && size == 2) {
      return (V)_mm256_mask_blend_epi16(bits, (__m256i)no, (__m256i)yes);
    } else if constexpr (bytes == 32 && size == 4) {
      return (V)_mm256_mask_blend_epi32(bits, (__m256i)no, (__m256i)yes);
    } else if constexpr (bytes == 16 && size == 4) {
      return (V)_mm_mask_blend_epi32(bits, (__m128i)no, (__m128i)yes);
    } else {
      return compiler_vectors::blend<S, W>(bits, yes, no);
    }
  }

#ifdef __clang__
  template <typename S, int W>
  static vector<S, W> permute(vector<S, W> a, vector<detail::int_like<S>, W> index) {
    using V = vector<S, W>;
    if constexpr (sizeof(S) == 4 && W == 16) {
      return (V)_mm512_permutexvar_epi32((__m512i)index, (__m512i)a);
    } else if constexpr (sizeof(S) == 8 && W == 8) {
      return (V)_mm512_permutexvar_epi64((__m512i)index, (__m512i)a);
    } else if constexpr (sizeof(S) == 2 && W == 32) {
      return (V)_mm512_permutexvar_epi16((__m512i)index, (__m512i)a);
    } else if constexpr (sizeof(S) == 2 && W == 16) {
      return (V)_mm256_permutexvar_epi16((__m256i)index, (__m256i)a);
    } else {
      return avx2::permute<S, W>(a, index);
    }
  }
  template <typename S, int W>
  static vector<S, W> permute2(vector<S, W> a, vector<S, W> b, vector<detail::int_like<S>, W> index) {
    using V = vector<S, W>;
    if constexpr (sizeof(S) == 4 && W == 16) {
      return (V)_mm512_permutex2var_epi32((__m512i)a, (__m512i)index, (__m512i)b);
    } else if constexpr (sizeof(S) == 8 && W == 8) {
      return (V)_mm512_permutex2var_epi64((__m512i)a, (__m512i)index, (__m512i)b);
    } else if constexpr (sizeof(S) == 2 && W == 32) {
      return (V)_mm512_permutex2var_epi16((__m512i)a, (__m512i)index, (__m512i)b);
    } else if constexpr (sizeof(S) == 2 && W == 16) {
      return (V)_mm256_permutex2var_epi16((__m256i)a, (__m256i)index, (__m256i)b);
    } else if constexpr (sizeof(S) == 4 && W == 8) {
      return (V)_mm256_permutex2var_epi32((__m256i)a, (__m256i)index, (__m256i)b);
    } else if constexpr (sizeof(S) == 4 && W == 4) {
      return (V)_mm_permutex2var_epi32((__m128i)a, (__m128i)index, (__m128i)b);
    } else {
      return avx2::permute2<S, W>(a, b, index);
    }
  }
#endif

  // Four rows and the next four share a vector; each quarter of a vector is transposed separately.
  ORRERY_INLINE static void transpose_words(const uint8_t* const (&row)[16], uint64_t at, uint32_t* out) {
    __m512i quarters[2][4];  // of rows 0 to 7 and 8 to 15: words i and i + 4 of four rows, then of the other four
    ORRERY_UNROLL for (int half = 0; half < 2; ++half) {
      __m512i rows[4];
      ORRERY_UNROLL for (int r = 0; r < 4; ++r) {
        rows[r] = load_halves_512(row[8 * half + r] + at, row[8 * half + r + 4] + at);
      }
      transpose_quarters(rows, quarters[half]);
    }
    ORRERY_UNROLL for (int i = 0; i < 4; ++i) {
      const __m512i first = quarters[0][i], second = quarters[1][i];
      _mm512_store_si512(out + 16 * i, _mm512_maskz_shuffle_i32x4(0xFFFF, first, second, 0x88));
      _mm512_store_si512(out + 16 * (i + 4), _mm512_maskz_shuffle_i32x4(0xFFFF, first, second, 0xDD));
    }
  }

  // Up to 16 bytes stay in registers: through memory the wide load waits for the narrow store, 8% of a q4_0 product
  // with 576-element rows. For 32 bytes the code of a register cast was 25% slower than memory.
  template <typename S, int M, int W>
  static vector<S, W> widen(vector<S, M> few) {
    using V = vector<S, W>;
    if constexpr (sizeof(V) == 64 && sizeof few == 16) {
      return (V)_mm512_castps128_ps512((__m128)few);
    } else if constexpr (sizeof(V) == 64 && sizeof few == 8) {
      int64_t bits;
      std::memcpy(&bits, &few, sizeof bits);
      return (V)_mm512_castps128_ps512(_mm_castsi128_ps(_mm_cvtsi64_si128(bits)));
    } else {
      return avx2::widen<S, M, W>(few);
    }
  }

  template <int W>
  static constexpr bool looks_up_words = W == 16;
  // Register permutations ignore the bits above an index, so no mask is needed.
  template <int Bits, int W>
  static vector<float, W> lookup_upper_words(const uint16_t* table, vector<uint32_t, W> words) {
    if constexpr (W == 16) {
      constexpr __mmask32 upper_words = 0xAAAAAAAA;
      const __m512i index = (__m512i)words, low = _mm512_load_si512(table);
      if constexpr (Bits <= 5) {
        return (vector<float, 16>)_mm512_maskz_permutexvar_epi16(upper_words, index, low);
      } else {
        const __m512i high = _mm512_load_si512(table + 32);
        return (vector<float, 16>)_mm512_maskz_permutex2var_epi16(upper_words, low, index, high);
      }
    } else {
      return avx2::lookup_upper_words<Bits, W>(table, words);
    }
  }

  // Only vectors of 32 bytes and more.
  template <typename V>
  ORRERY_INLINE static void hold_in_registers(V& v) {
    if constexpr (sizeof(V) >= 32) asm("" : "+v"(v));
  }
  template <typename V>
  ORRERY_INLINE static void hold_in_memory(V& v) {
    asm("" : "+m"(v));
  }

 protected:
  // 32 bytes from each of two addresses.
  ORRERY_INLINE static __m512i load_halves_512(const uint8_t* first, const uint8_t* second) {
    return _mm512_maskz_inserti64x4(0xFF, _mm512_castsi256_si512(load_256(first)), load_256(second), 1);
  }
  ORRERY_INLINE static __m256i load_256(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }

 private:
  // Transposes each quarter of four rows of 16 words: quarter q of out[i] has word 4q + i of the four rows.
  ORRERY_INLINE static void transpose_quarters(const __m512i (&row)[4], __m512i (&out)[4]) {
    const __m512i low01 = _mm512_maskz_unpacklo_epi32(0xFFFF, row[0], row[1]);
    const __m512i low23 = _mm512_maskz_unpacklo_epi32(0xFFFF, row[2], row[3]);
    const __m512i high01 = _mm512_maskz_unpackhi_epi32(0xFFFF, row[0], row[1]);
    const __m512i high23 = _mm512_maskz_unpackhi_epi32(0xFFFF, row[2], row[3]);
    out[0] = _mm512_maskz_unpacklo_epi64(0xFF, low01, low23);
    out[1] = _mm512_maskz_unpackhi_epi64(0xFF, low01, low23);
    out[2] = _mm512_maskz_unpacklo_epi64(0xFF, high01, high23);
    out[3] = _mm512_maskz_unpackhi_epi64(0xFF, high01, high23);
  }
};

}  // namespace orrery
