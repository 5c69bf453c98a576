// AVX-512 with byte permutations (VBMI) and byte products (VNNI).
#pragma once

#include "avx512.h"

namespace orrery {

struct avx512_bytes : avx512 {
  static constexpr const char* name = "avx512_bytes";

  template <int W>
  static vector<float, W> lookup_signed(const uint8_t* top, const uint8_t* second, vector<uint32_t, W> words, int k) {
    if constexpr (W == 16) {
      const __m512i code = (__m512i)words;
      const __m512i sign = _mm512_set1_epi8(-128);
      return float_of_bytes(_mm512_ternarylogic_epi32(lookup(top, code), code, sign, 0xF8),  // | (code & sign)
                            lookup(second, code), k);
    } else {
      return avx512::lookup_signed<W>(top, second, words, k);
    }
  }
  template <int W>
  static constexpr bool looks_up_bytes = W == 16;
  template <int W>
  static vector<float, W> lookup_bytes(const uint8_t* top, const uint8_t* second, vector<uint32_t, W> words, int k) {
    if constexpr (W == 16) {
      const auto look_up = [&](const uint8_t* table) {
        return (__m512i)lookup_64((bytes)_mm512_load_si512(table), (bytes)words);
      };
      return float_of_bytes(look_up(top), look_up(second), k);
    } else {
      return avx512::lookup_bytes<W>(top, second, words, k);
    }
  }

  using bytes = vector<uint8_t, 64>;

  ORRERY_INLINE static bytes lookup_64(bytes table, bytes index) {
    return (bytes)_mm512_maskz_permutexvar_epi8(~0ull, (__m512i)index, (__m512i)table);
  }
  ORRERY_INLINE static bytes lookup_128(bytes low, bytes high, bytes index) {
    return (bytes)_mm512_permutex2var_epi8((__m512i)low, (__m512i)index, (__m512i)high);
  }
  ORRERY_INLINE static bytes lookup_128_where(uint64_t where, bytes low, bytes high, bytes index) {
    return (bytes)_mm512_mask2_permutex2var_epi8((__m512i)low, (__m512i)index, where, (__m512i)high);
  }
  ORRERY_INLINE static uint64_t common_bits(bytes a, bytes b) { return _mm512_test_epi8_mask((__m512i)a, (__m512i)b); }
  ORRERY_INLINE static uint64_t at_least(bytes a, bytes b) { return _mm512_cmpge_epu8_mask((__m512i)a, (__m512i)b); }
  ORRERY_INLINE static uint64_t top_bits(bytes a) { return _mm512_movepi8_mask((__m512i)a); }
  ORRERY_INLINE static bytes add_where(uint64_t where, bytes a, bytes b) {
    return (bytes)_mm512_mask_add_epi8((__m512i)a, where, (__m512i)a, (__m512i)b);
  }
  ORRERY_INLINE static bytes negate_where(uint64_t where, bytes a) {
    return (bytes)_mm512_mask_sub_epi8((__m512i)a, where, _mm512_setzero_si512(), (__m512i)a);
  }
  ORRERY_INLINE static bytes merge_bits(bytes mask, bytes yes, bytes no) {
    return (bytes)_mm512_ternarylogic_epi64((__m512i)mask, (__m512i)yes, (__m512i)no, 0xCA);
  }
  ORRERY_INLINE static bytes shift_words_right(bytes a, int n) {
    return (bytes)_mm512_srli_epi16((__m512i)a, static_cast<unsigned>(n));
  }
  ORRERY_INLINE static bytes shift_words_left(bytes a, int n) {
    return (bytes)_mm512_slli_epi16((__m512i)a, static_cast<unsigned>(n));
  }
  template <int Step>
  ORRERY_INLINE static bytes bytes_at_steps(vector<uint32_t, 16> words) {
    constexpr uint64_t low = 0ull | 1ull * Step << 8 | 2ull * Step << 16 | 3ull * Step << 24;
    constexpr uint64_t from = low | (low + 0x20202020ull) << 32;
    return (bytes)_mm512_maskz_multishift_epi64_epi8(~0ull, _mm512_set1_epi64(static_cast<long long>(from)),
                                                     (__m512i)words);
  }
  ORRERY_INLINE static vector<int32_t, 16> dot_bytes(vector<int32_t, 16> sum, bytes a, bytes b) {
    return (vector<int32_t, 16>)_mm512_dpbusd_epi32((__m512i)sum, (__m512i)a, (__m512i)b);
  }
  ORRERY_INLINE static bytes load_halves(const uint8_t* first, const uint8_t* second) {
    return (bytes)load_halves_512(first, second);
  }
  ORRERY_INLINE static vector<uint32_t, 16> load_widened_halves(const uint8_t* first, const uint8_t* second) {
    const __m256i both = _mm256_inserti128_si256(_mm256_castsi128_si256(load_128(first)), load_128(second), 1);
    return (vector<uint32_t, 16>)_mm512_maskz_cvtepu16_epi32(0xFFFF, both);
  }

 private:
  // The floats whose upper bytes are byte k of the lanes of the two vectors. The compiler makes the pairs of bytes once
  // for all k, so that with them a float takes two operations of one micro-operation each; a permutation of bytes from
  // two registers takes three.
  ORRERY_INLINE static vector<float, 16> float_of_bytes(__m512i upper, __m512i lower, int k) {
    const auto high = (vector<uint16_t, 32>)upper, low = (vector<uint16_t, 32>)lower;
    const auto pairs = (vector<uint32_t, 16>)(k % 2 == 0 ? high << 8u | (low & uint16_t(0xFF))
                                                         : (high & uint16_t(0xFF00)) | low >> 8u);
    return (vector<float, 16>)(k < 2 ? pairs << 16u : pairs & 0xFFFF0000u);
  }
  // table[index & 127]
  ORRERY_INLINE static __m512i lookup(const uint8_t* table, __m512i index) {
    return _mm512_permutex2var_epi8(_mm512_load_si512(table), index, _mm512_load_si512(table + 64));
  }
  ORRERY_INLINE static __m128i load_128(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }
};

}  // namespace orrery
