// The linear block formats: a value is an affine function of a small integer, with one scale per 64 elements.
//
// A split format, in this header or codebook.h, has
//   value<T>(code, d..)      the value rule for one element, from its stored scale
//   unscaled<T>(code)        the same without the scale, one code per lane of code_lane; higher bits are ignored
//   scaled<T, N, Share>(..)  a sum of unscaled terms times the scale; `Share` neighbouring lanes are in one block
//   scaled_pairs<T, N, Share>(..)   the same for two rows side by side, of N lanes each
//   run, words               elements of a work-item per pass, and 32-bit words that hold their codes
//   load(..)                 loads those words, for the run that starts at element o of a block
//   load_blocks(..)          loads those of several whole blocks, wherever these are (not every format has it)
//   prefetch_codes<N>(..)    prefetches the words of N such runs
//   term<T>(words, k)        the unscaled value of the k-th term of the run's sum
//   pair_code(words, words, k)   the k-th terms' codes of two rows side by side, in the low bits of 16-bit lanes
//   first_element, element   the run's first element in the block, and its k-th term relative to that
// members of split_defaults that it overrides, and, if each byte holds whole codes,
//   codes_per_byte           1 or 2
//   byte_code(byte, p)       code p of a byte; higher bits are unspecified
//   byte_element(j, p)       the element of the block whose code is code p of byte j
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "includes/codes.h"
#include "includes/simd.h"

namespace orrery::formats {

template <typename T>
T plus(T a, T b) {
  return (simd<T, 1>(a) + simd<T, 1>(b))[0];
}
template <typename T>
T times(T a, T b) {
  return (simd<T, 1>(a) * simd<T, 1>(b))[0];
}

// Lanes for N codes with values of type T: 16 bits, if the values are halves and fill vectors.
template <typename T, int N>
using code_lane = std::conditional_t<sizeof(register_type<T>) == 2 && N % 32 == 0, uint16_t, uint32_t>;

// Defaults of a split format.
struct split_defaults {
  // Whether a value has an offset.
  static constexpr bool has_offset = false;
  // Whether dequantization computes in float for every T and rounds once, at the end.
  static constexpr bool rounds_last = false;
  // Whether half_bits(code) gives a value's bits as a half.
  static constexpr bool codes_are_halves = false;
};

// One scale of type S per block.
template <typename S>
struct one_scale : split_defaults {
  static constexpr int scale_bytes = sizeof(S);

  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const uint8_t* scales) {
    return s * load_shared<T, N, Share, S>(scales);
  }
  template <typename T, int N, int Share>
  static simd<T, 2 * N> scaled_pairs(const simd<T, 2 * N>& s, const uint8_t* first, const uint8_t* second) {
    return s * load_shared_pairs<T, N, Share, S>(first, second);
  }
};
using half_scale = one_scale<c10::Half>;
using float_scale = one_scale<float>;

// Codes of bytes or nibbles: a run is 8 bytes, and the runs of neighbouring lanes are contiguous.
template <int Run>
struct byte_runs {
  static constexpr int run = Run;
  static constexpr int words = 2;
  static constexpr int quant_bytes = 512 / Run;

  // Lane 0's run begins at element `o` of the block.
  template <int N>
  static void load(const uint8_t* weight, uint32_t /*scale_offset*/, uint64_t block, int o,
                   simd<uint32_t, N> (&word)[2]) {
    load_words(weight + block * quant_bytes + o / Run * 8, word);
  }
  // The runs of B whole blocks.
  template <int B, int N>
  ORRERY_INLINE static void load_blocks(const uint8_t* weight, const uint32_t (&block)[B],
                                        simd<uint32_t, N> (&word)[2]) {
    static_assert(B * quant_bytes == N * 8);
    alignas(64) uint8_t runs[N * 8];
    ORRERY_UNROLL for (int i = 0; i < B; ++i) {
      std::memcpy(runs + i * quant_bytes, weight + uint64_t(block[i]) * quant_bytes, quant_bytes);
    }
    load_words(runs, word);
  }
  template <int N>
  ORRERY_INLINE static void prefetch_codes(const uint8_t* weight, uint32_t /*scale_offset*/, uint64_t block, int o) {
    prefetch<N * 8>(weight + block * quant_bytes + o / Run * 8);
  }

 protected:
  // The 16-bit lanes that hold bit `at` of each run's 8 bytes, in their low bits from that one on.
  template <int N>
  static simd<uint16_t, 2 * N> pair_bits(const simd<uint32_t, N> (&first)[2], const simd<uint32_t, N> (&second)[2],
                                         int at) {
    const int w = at / 32;
    return (at % 32 < 16 ? lower_halves(first[w], second[w]) : upper_halves(first[w], second[w])) >> at % 16;
  }
};

// Two 4-bit codes per byte j: elements j and j + 32. A run alternates between two sequences of 8 elements, 32 apart.
template <bool HighFirst>
struct nibble_pairs : byte_runs<16> {
  static constexpr int codes_per_byte = 2;

  static constexpr int element(int k) { return k / 2 + 32 * (k % 2); }
  static constexpr int first_element(int o) { return o / 2; }

  static constexpr int byte_element(int j, int p) { return j + 32 * p; }
  template <typename Lanes>
  static Lanes byte_code(const Lanes& byte, int p) {
    return byte >> shift(p);
  }
  template <int N>
  static simd<uint16_t, 2 * N> pair_code(const simd<uint32_t, N> (&first)[2], const simd<uint32_t, N> (&second)[2],
                                         int k) {
    return byte_runs::pair_bits(first, second, k / 2 * 8 + shift(k % 2));
  }

  // The k-th code; higher bits are unspecified.
  template <int N>
  static simd<uint32_t, N> code(const simd<uint32_t, N> (&word)[2], int k) {
    return word[k / 8] >> (k % 8 / 2 * 8 + shift(k % 2));
  }

 protected:
  static constexpr int shift(int p) { return p == int(HighFirst) ? 0 : 4; }
};

// The values of the 16 codes, as kept in registers.
template <typename T>
using nibble_table = nibble_values<register_type<T>>;

// values[code & 15].
template <typename T, typename Code, int N>
simd<T, N> value_of_nibble(const nibble_table<T>& values, const simd<Code, N>& code) {
  if constexpr (N == 1) {
    return simd<T, 1>(T(values[code[0] & 15]));
  } else {
    return lookup(simd<T, table_size<Code>>::load_register_values(values.data()), code);
  }
}

// Nibbles with values by Rule, as floats with a zero lower half. Of the eight nibbles of a word, the four in the upper
// half are looked up in place, which saves their shifts (7% of a product).
template <typename Rule>
struct ruled_nibbles : nibble_pairs<false> {
  template <typename T, typename Code, int N>
  static simd<T, N> unscaled(const simd<Code, N>& code) {
    return value_of_nibble<T>(values_of_nibbles<Rule, register_type<T>>, code);
  }
  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    if constexpr (has_upper_word_lookup<N> && std::is_same_v<register_type<T>, float>) {
      if (k % 8 >= 4) return convert_exact<T>(value_of_upper_word<Rule, 4>(nibble_pairs::code(word, k - 4)));
    }
    return unscaled<T>(nibble_pairs::code(word, k));
  }
};

struct less_8 {
  static constexpr int value(int code) { return code - 8; }
};
struct q4_0 : ruled_nibbles<less_8>, half_scale {
  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(d), to<T>(code - 8));
  }
};

struct q4_1 : ruled_nibbles<plain_code>, split_defaults {
  static constexpr int scale_bytes = 4;
  static constexpr bool has_offset = true;

  template <typename T>
  static T value(int code, float d, float m) {
    return plus(times(to<T>(d), to<T>(code)), to<T>(m));
  }

  // `x` is the sum of the inputs.
  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const simd<T, N>& x, const uint8_t* scales) {
    const auto* p = reinterpret_cast<const c10::Half*>(scales);
    if constexpr (N == 1 || N < Share) {
      const simd<T, N> d(convert<T>(simd<c10::Half, 1>::load(p))[0]);
      const simd<T, N> m(convert<T>(simd<c10::Half, 1>::load(p + 1))[0]);
      return s * d + x * m;
    } else {
      // Always loads the scales of eight blocks, even if the lanes need fewer: a full load needs no mask.
      static_assert(N / Share <= 8);
      const auto pairs = convert<T>(simd<c10::Half, 16>::load(p));
      const auto d = simd<uint32_t, N>::iota() >> std::countr_zero(unsigned(Share)) << 1;
      return s * lookup(pairs, d) + x * lookup(pairs, d | simd<uint32_t, N>(1));
    }
  }
  template <typename T, int N, int Share>
  static simd<T, 2 * N> scaled_pairs(const simd<T, 2 * N>& s, const simd<T, 2 * N>& x, const uint8_t* first,
                                     const uint8_t* second) {
    const simd<T, N> one(to<T>(1)), zero;
    const auto both = [&](const auto& s, const auto& x) {
      return join_pairs(scaled<T, N, Share>(s, x, first), scaled<T, N, Share>(s, x, second));
    };
    return s * both(one, zero) + x * both(zero, one);
  }
};

// One 8-bit code per byte.
struct whole_bytes : byte_runs<8> {
  static constexpr int codes_per_byte = 1;

  static constexpr int element(int k) { return k; }
  static constexpr int first_element(int o) { return o; }

  static constexpr int byte_element(int j, int) { return j; }
  template <typename Lanes>
  static Lanes byte_code(const Lanes& byte, int) {
    return byte;
  }
  template <int N>
  static simd<uint16_t, 2 * N> pair_code(const simd<uint32_t, N> (&first)[2], const simd<uint32_t, N> (&second)[2],
                                         int k) {
    return byte_runs::pair_bits(first, second, k * 8);
  }
};

struct q8_0 : whole_bytes, float_scale {
  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(d), to<T>(static_cast<int8_t>(code)));
  }

  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint32_t, N>& code) {
    return from_top_byte<T>(code << 24);
  }
  // As from_byte, with the exponent of 1024.
  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint16_t, N>& code) {
    using U = simd<uint16_t, N>;
    return bit_cast<T>((code & U(0xFF)) ^ U(0x6480)) - simd<T, N>(T(1152.0f));
  }
  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    return from_byte<T>(word[k / 4], k % 4);
  }

 private:
  template <typename T, int N>
  static simd<T, N> from_top_byte(const simd<uint32_t, N>& top) {
    return convert_exact<T>(convert<float>(bit_cast<int32_t>(top) >> 24));
  }
  // Byte k of a word. A byte in the mantissa bits, with its sign bit flipped, makes together with an exponent the float
  // 2^e + code + 128. One exact subtraction then replaces two shifts and a conversion.
  template <typename T, int N>
  static simd<T, N> from_byte(const simd<uint32_t, N>& word, int k) {
    using U = simd<uint32_t, N>;
    if (k == 3) return from_top_byte<T>(word);
    const int at = k == 1 ? 8 : 0;
    const uint32_t exponent = (127u + 23u - at) << 23;
    const auto with_exponent = ((k == 2 ? word >> 16 : word) & U(0xFFu << at)) ^ U(exponent | 0x80u << at);
    const float zero = std::bit_cast<float>(exponent) + 128.0f;
    return convert_exact<T>(bit_cast<float>(with_exponent) - simd<float, N>(zero));
  }
};

// Dequantizes one code per lane. `Share` neighbouring lanes are in one block; the scale of the first block is at
// `scales`.
template <typename Format, typename T, int Share, typename Code, int N>
simd<T, N> dequantized(const simd<Code, N>& code, const uint8_t* scales) {
  if constexpr (Format::rounds_last) {
    return convert<T>(Format::template scaled<float, N, Share>(Format::template unscaled<float>(code), scales));
  } else if constexpr (Format::has_offset) {
    const simd<T, N> one(to<T>(1));
    return Format::template scaled<T, N, Share>(Format::template unscaled<T>(code), one, scales);
  } else {
    return Format::template scaled<T, N, Share>(Format::template unscaled<T>(code), scales);
  }
}

// q5_0 and q5_1 are arrays of 44-byte blocks: d, m, the fifth bits as two words, then nibbles as in q4_0.
struct q5_block {
  static constexpr int bytes = 44;
  static constexpr int scale_at = 0, offset_at = 2, high_bits_at = 4, nibbles_at = 12;

  // Codes of elements j + lane and j + 32 + lane of one block, j + N at most 32.
  template <int N>
  static void codes(const uint8_t* block, int j, simd<int32_t, N>& low, simd<int32_t, N>& high) {
    uint32_t fifth[2];
    std::memcpy(fifth, block + high_bits_at, sizeof fifth);
    const auto nibbles = convert<uint32_t>(simd<uint8_t, N>::load(block + nibbles_at + j));
    using U = simd<uint32_t, N>;
    low = bit_cast<int32_t>((nibbles & U(15u)) | spread_bits<N>(fifth[0] >> j));
    high = bit_cast<int32_t>((nibbles >> 4) | spread_bits<N>(fifth[1] >> j));
  }

  static float half_at(const uint8_t* p) {
    return simd<c10::Half, 1>::load(reinterpret_cast<const c10::Half*>(p)).register_value(0);
  }

 private:
  // Lane i is 16 if bit i is set, else 0.
  template <int N>
  static simd<uint32_t, N> spread_bits(uint32_t bits) {
    using U = simd<uint32_t, N>;
    return ((U(bits) >> U::iota()) & U(1u)) << 4;
  }
};

struct q5_0 : q5_block {
  // Computed in float for every T, then rounded to T; the offset field is not read.
  template <typename T, int N>
  static simd<T, N> value(const simd<int32_t, N>& code, const uint8_t* block) {
    using F = simd<float, N>;
    const float d = static_cast<float>(scale<T>(block));
    return convert<T>((convert<float>(code) + F(-16.0f)) * F(d));
  }

 private:
  // bfloat16 rounds the scale first.
  template <typename T>
  static float scale(const uint8_t* block) {
    const float d = half_at(block + scale_at);
    if constexpr (std::is_same_v<T, c10::BFloat16>) return c10::BFloat16(d);
    return d;
  }
};

struct q5_1 : q5_block {
  template <typename T, int N>
  static simd<T, N> value(const simd<int32_t, N>& code, const uint8_t* block) {
    using V = simd<T, N>;
    const V d(to<T>(half_at(block + scale_at)));
    const V m(to<T>(half_at(block + offset_at)));
    return d * convert<T>(code) + m;
  }
};

}  // namespace orrery::formats
