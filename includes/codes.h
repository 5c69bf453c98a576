// Values of codes that are packed in words.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <utility>

#include "simd.h"

namespace orrery {

namespace detail {

// The upper halves of Rule's floats for all codes of Bits bits, repeated to fill a vector.
template <typename Rule, int Bits>
struct code_values {
  static constexpr int count = Bits < 5 ? 32 : 1 << Bits;
  alignas(64) uint16_t upper[count] = {};

  constexpr code_values() {
    for (int i = 0; i < count; ++i) {
      upper[i] = static_cast<uint16_t>(std::bit_cast<uint32_t>(float(Rule::value(i % (1 << Bits)))) >> 16);
    }
  }
};
template <typename Rule, int Bits>
inline constexpr code_values<Rule, Bits> values_of_codes;

}  // namespace detail

// Values of the 16 4-bit codes. Halves are there twice, since permutations of 16-bit lanes look at five bits.
template <typename V>
using nibble_values = std::array<V, sizeof(V) == 2 ? 32 : 16>;
template <typename Rule, typename V>
alignas(64) inline constexpr auto values_of_nibbles = [] {
  nibble_values<V> all{};
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<V>(Rule::value(i % 16));
  return all;
}();

// The rule for codes that are the values themselves.
struct plain_code {
  static constexpr int value(int code) { return code; }
};

// Rule::value(code) as a float, for the code of Bits bits at bit 16 of each lane. The float's lower half must be zero,
// as in integers of at most eight significant bits.
template <typename Rule, int Bits, int N>
ORRERY_INLINE inline simd<float, N> value_of_upper_word(const simd<uint32_t, N>& word) {
  if constexpr (has_upper_word_lookup<N>) {
    return lookup_upper_words<Bits>(detail::values_of_codes<Rule, Bits>.upper, word);
  } else {
    simd<float, N> r;
    for (int i = 0; i < N; ++i) r.set(i, static_cast<float>(Rule::value(word[i] >> 16 & ((1 << Bits) - 1))));
    return r;
  }
}

// The same for the code at bit At. A 4-bit code in the lower half of the word is looked up as a float; any other is
// shifted into the upper half.
template <typename Rule, int Bits, int At, int N>
ORRERY_INLINE inline simd<float, N> value_of_code(const simd<uint32_t, N>& word) {
  static_assert(Bits <= 6);
  if constexpr (has_upper_word_lookup<N> && N == 16 && Bits == 4 && At < 16) {
    return lookup(simd<float, 16>::load(values_of_nibbles<Rule, float>.data()), word >> At);
  } else {
    return value_of_upper_word<Rule, Bits>(At < 16 ? word << (16 - At) : word >> (At - 16));
  }
}

// Floats by code, of which only the upper 16 bits may be set.
template <int Bits>
struct float_table {
  static constexpr int size = 1 << Bits;
  alignas(64) uint8_t top[size];
  alignas(64) uint8_t second[size];

  template <typename F>
  static constexpr float_table of(F value) {
    float_table t{};
    for (int code = 0; code < size; ++code) {
      const uint32_t bits = std::bit_cast<uint32_t>(static_cast<float>(value(code)));
      t.top[code] = static_cast<uint8_t>(bits >> 24);
      t.second[code] = static_cast<uint8_t>(bits >> 16);
    }
    return t;
  }
};

// Lane i is the table's float for the low seven bits of byte k of codes[i], negative if the byte's top bit is set.
template <int N>
inline simd<float, N> lookup_signed(const float_table<7>& table, const simd<uint32_t, N>& codes, int k) {
  return lookup_signed(table.top, table.second, codes, k);
}

// Rule::value of the low six bits of byte k of each lane, as a float whose lower half must be zero.
template <typename Rule, int N>
ORRERY_INLINE inline simd<float, N> value_of_byte(const simd<uint32_t, N>& codes, int k) {
  if constexpr (has_byte_lookup<N>) {
    static constexpr auto table = float_table<6>::of(Rule::value);
    return lookup_bytes(table.top, table.second, codes, k);
  } else {
    return value_of_upper_word<Rule, 6>(k < 2 ? codes << (16 - 8 * k) : codes >> (8 * k - 16));
  }
}

// Calls f with the integers 0 to Count - 1 as constants.
template <int Count, typename F>
ORRERY_INLINE inline constexpr void for_each_constant(F f) {
  [&]<int... I>(std::integer_sequence<int, I...>) ORRERY_INLINE { (f(std::integral_constant<int, I>()), ...); }
  (std::make_integer_sequence<int, Count>());
}

}  // namespace orrery
