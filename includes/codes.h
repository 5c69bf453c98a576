// Values of codes that lie side by side in words.
#pragma once

#include <bit>
#include <cstdint>
#include <utility>

#include "simd.h"

namespace orrery {

namespace detail {

// The upper halves of the floats that Rule gives to all codes of Bits bits, repeated to a whole vector.
template <typename Rule, int Bits>
struct code_values {
  static constexpr int count = Bits < 5 ? 32 : 1 << Bits;
  alignas(64) uint16_t upper[count] = {};
  alignas(64) float whole[16] = {};

  constexpr code_values() {
    for (int i = 0; i < count; ++i) {
      upper[i] = static_cast<uint16_t>(std::bit_cast<uint32_t>(float(Rule::value(i % (1 << Bits)))) >> 16);
    }
    for (int i = 0; i < 16; ++i) whole[i] = Rule::value(i % (1 << Bits));
  }
};
template <typename Rule, int Bits>
inline constexpr code_values<Rule, Bits> values_of_codes;

}  // namespace detail

// The rule of codes that are their own values.
struct plain_code {
  static constexpr int value(int code) { return code; }
};

// Whether value_of_upper_word is an instruction of its own.
#ifdef ORRERY_LANE_MASKS
template <int N>
constexpr bool has_upper_word_lookup = N % 16 == 0;
#else
template <int N>
constexpr bool has_upper_word_lookup = false;
#endif

// Rule::value(code) as a float, for the code of Bits bits at bit 16 of each lane. Its lower half has to be zero, as
// that of an integer of at most eight significant bits. Permutations of registers ignore what stands above an index, so
// no mask is spent on it.
template <typename Rule, int Bits, int N>
ORRERY_INLINE inline simd<float, N> value_of_upper_word(const simd<uint32_t, N>& word) {
  simd<float, N> r;
#ifdef ORRERY_LANE_MASKS
  if constexpr (has_upper_word_lookup<N>) {
    const auto& table = detail::values_of_codes<Rule, Bits>;
    constexpr __mmask32 upper_words = 0xAAAAAAAA;
    const auto low = _mm512_load_si512(table.upper);
    ORRERY_UNROLL for (int c = 0; c < N / 16; ++c) {
      const auto index = (__m512i)word.v[c];
      if constexpr (Bits <= 5) {
        r.v[c] = (decltype(r.v[c] + r.v[c]))_mm512_maskz_permutexvar_epi16(upper_words, index, low);
      } else {
        const auto high = _mm512_load_si512(table.upper + 32);
        r.v[c] = (decltype(r.v[c] + r.v[c]))_mm512_maskz_permutex2var_epi16(upper_words, low, index, high);
      }
    }
    return r;
  }
#endif
  for (int i = 0; i < N; ++i) r.set(i, static_cast<float>(Rule::value(word[i] >> 16 & ((1 << Bits) - 1))));
  return r;
}

// The same for the code at bit At. One in the lower word is looked up as a float if it has four bits, any other is
// brought into the upper word.
template <typename Rule, int Bits, int At, int N>
ORRERY_INLINE inline simd<float, N> value_of_code(const simd<uint32_t, N>& word) {
  static_assert(Bits <= 6);
#ifdef ORRERY_LANE_MASKS
  if constexpr (N == 16 && Bits == 4 && At < 16) {
    simd<float, 16> r;
    const auto whole = simd<float, 16>::load(detail::values_of_codes<Rule, Bits>.whole);
    r.v[0] = __builtin_shuffle(whole.v[0], (word >> At).v[0]);
    return r;
  }
#endif
  return value_of_upper_word<Rule, Bits>(At < 16 ? word << (16 - At) : word >> (At - 16));
}

// Floats by a 7-bit code, with no more than the upper 16 of their bits set.
struct float_table {
  alignas(64) uint8_t top[128];
  alignas(64) uint8_t second[128];

  template <typename F>
  static constexpr float_table of(F value) {
    float_table t{};
    for (int code = 0; code < 128; ++code) {
      const uint32_t bits = std::bit_cast<uint32_t>(static_cast<float>(value(code)));
      t.top[code] = static_cast<uint8_t>(bits >> 24);
      t.second[code] = static_cast<uint8_t>(bits >> 16);
    }
    return t;
  }
};

// Lane i is the table's float for the low seven bits of byte k of codes[i], negative if the byte's top bit is set.
template <int N>
inline simd<float, N> lookup_signed(const float_table& table, const simd<uint32_t, N>& codes, int k) {
  simd<float, N> r;
#ifdef __AVX512VBMI__
  if constexpr (simd<uint32_t, N>::W == 16) {
    const auto bytes = [](const uint8_t* p) { return _mm512_load_si512(p); };
    const auto lane = (__m512i)(detail::iota<uint32_t, 16>() * 4u + static_cast<uint32_t>(k));
    // Bytes 2 and 3 of a lane from byte k of the two tables' results; 64 is the second one's first byte.
    const __m512i at = _mm512_or_si512(_mm512_slli_epi32(lane, 16),
                                       _mm512_or_si512(_mm512_slli_epi32(lane, 24), _mm512_set1_epi32(0x40000000)));
    ORRERY_UNROLL for (int c = 0; c < simd<uint32_t, N>::chunks; ++c) {
      const __m512i code = (__m512i)codes.v[c], sign = _mm512_set1_epi8(-128);
      const __m512i top = _mm512_permutex2var_epi8(bytes(table.top), code, bytes(table.top + 64));
      const __m512i second = _mm512_permutex2var_epi8(bytes(table.second), code, bytes(table.second + 64));
      const __m512i with_sign = _mm512_ternarylogic_epi32(top, code, sign, 0xF8);  // top | (code & sign)
      r.v[c] = (detail::vector_t<float, 16>)_mm512_maskz_permutex2var_epi8(0xCCCCCCCCCCCCCCCC, second, at, with_sign);
    }
    return r;
  }
#endif
  ORRERY_UNROLL for (int i = 0; i < N; ++i) {
    const uint32_t code = codes[i] >> (8 * k), low = code & 127;
    const uint32_t upper = (table.top[low] | (code & 128)) << 8 | table.second[low];
    r.set(i, std::bit_cast<float>(upper << 16));
  }
  return r;
}

// Products of bytes added up by fours, permutations of bytes.
#if defined(ORRERY_LANE_MASKS) && defined(__AVX512VNNI__) && defined(__AVX512VBMI__)
#define ORRERY_BYTE_DOTS 1

// Adds the four products of each lane's unsigned bytes with the signed ones.
ORRERY_INLINE inline simd<int32_t, 16> dot_bytes(simd<int32_t, 16> sum, const simd<uint32_t, 16>& a, const void* b) {
  sum.v[0] =
      (decltype(sum.v[0] + sum.v[0]))_mm512_dpbusd_epi32((__m512i)sum.v[0], (__m512i)a.v[0], _mm512_loadu_si512(b));
  return sum;
}
#endif

// A value that is loaded once and stays in a register: left alone, the compiler reads the memory again at each use, and
// loads are what a kernel of few operations a byte runs out of.
template <typename T, int N>
ORRERY_INLINE inline simd<T, N> kept(simd<T, N> a) {
#ifdef ORRERY_LANE_MASKS
  if constexpr (N >= 8) {
    for (auto& chunk : a.v) asm("" : "+v"(chunk));
  }
#endif
  return a;
}

// Numbers that are read back from memory: a vector operation spreads a number there over all lanes for nothing, one in
// a register takes a shuffle.
template <size_t Count>
ORRERY_INLINE inline void from_memory([[maybe_unused]] float (&numbers)[Count]) {
#ifdef ORRERY_LANE_MASKS
  asm("" : "+m"(numbers));
#endif
}

// Calls f with the integers 0 to Count - 1 as constants.
template <int Count, typename F>
ORRERY_INLINE inline constexpr void for_each_constant(F f) {
  [&]<int... I>(std::integer_sequence<int, I...>) ORRERY_INLINE { (f(std::integral_constant<int, I>()), ...); }
  (std::make_integer_sequence<int, Count>());
}

}  // namespace orrery
