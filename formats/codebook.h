// The codebook formats: a code is an index into a table or a small floating-point number, with one scale per 64
// elements. linear.h lists the members of a format.
#pragma once

#include <bit>

#include "formats/linear.h"

namespace orrery::formats {

// A normal float rounded to T, ties to even, as kept in registers.
template <typename T>
constexpr register_type<T> nearest(float x) {
  constexpr int dropped = std::is_same_v<T, c10::Half> ? 13 : std::is_same_v<T, c10::BFloat16> ? 16 : 0;
  const uint32_t bits = std::bit_cast<uint32_t>(x);
  if constexpr (dropped == 0) return x;
  const uint32_t rounded = bits + (1u << dropped >> 1) - 1 + (bits >> dropped & 1);
  return static_cast<register_type<T>>(std::bit_cast<float>(rounded >> dropped << dropped));
}

// A table of 16, or one of 8 repeated, so that the bit above a 3-bit code is ignored.
template <typename T, size_t Codes>
constexpr nibble_table<T> nearest_values(const float (&table)[Codes]) {
  nibble_table<T> values{};
  for (size_t i = 0; i < values.size(); ++i) values[i] = nearest<T>(table[i % Codes]);
  return values;
}

// Table[code], for codes of as many bits as the table needs.
template <typename T, const auto& Table, typename Code, int N>
simd<T, N> value_in(const simd<Code, N>& code) {
  alignas(64) static constexpr nibble_table<T> values = nearest_values<T>(Table);
  return value_of_nibble<T>(values, code);
}

// The half with these bits, widened to float.
inline float half_of_bits(uint32_t bits) {
  const uint16_t half = static_cast<uint16_t>(bits);
  return simd<c10::Half, 1>::load(reinterpret_cast<const c10::Half*>(&half)).register_value(0);
}

// The half with the high byte `code`, whose lane has other bits above it, and the low byte 0x80.
template <int N>
simd<c10::Half, N> half_by_byte(const simd<uint16_t, N>& code) {
  return bit_cast<c10::Half>(code << 8 | simd<uint16_t, N>(0x80));
}

// By 7-bit code, the half with that high byte and the low byte 0x80: 5 exponent bits, 2 mantissa bits and a third that
// is always 1. The highest exponent is NaN.
struct half_of_high_byte {
  static constexpr float value(int code) {
    const int exponent = code >> 2, mantissa = code % 4 * 2 + 1;
    if (exponent == 31) return std::bit_cast<float>(0x7FC00000);
    if (exponent == 0) return mantissa * 0x1p-17f;
    return std::bit_cast<float>((exponent + 112) << 23 | mantissa << 20);
  }
};
inline constexpr auto half_by_high_byte = float_table<7>::of(half_of_high_byte::value);

// Byte j holds element j in its high nibble and element j + 32 in its low one.
struct nf4 : nibble_pairs<true>, half_scale {
  // clang-format off
  static constexpr float table[16] = {
                      -1.0f,  -0.6961928009986877f,  -0.5250730514526367f, -0.39491748809814453f,
      -0.28444138169288635f, -0.18477343022823334f, -0.09105003625154495f,                  0.0f,
       0.07958029955625534f,  0.16093020141124725f,  0.24611230194568634f,  0.33791524171829224f,
       0.44070982933044434f,   0.5626170039176941f,   0.7229568362236023f,                  1.0f};
  // clang-format on

  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(d), to<T>(table[code]));
  }

  template <typename T, typename Code, int N>
  static simd<T, N> unscaled(const simd<Code, N>& code) {
    return value_in<T, table>(code);
  }
  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    return unscaled<T>(code(word, k));
  }
};

// A sign and a 3-bit magnitude. There is no zero.
struct fp4_number {
  static constexpr float value(int code) {
    const uint32_t v = code & 7;
    const uint32_t bits = v > 1 ? 0x3F000000 + (v << 22) : v == 1 ? 0x3F000000 : 0x3D000000;
    return std::bit_cast<float>(bits | static_cast<uint32_t>(code) >> 3 << 31);
  }
};
struct fp4 : ruled_nibbles<fp4_number>, half_scale {
  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(d), to<T>(fp4_number::value(code)));
  }
};

// A block is a 64-bit word with the top bits of all codes, then 16 bytes with their low two bits. The first element of
// a byte is in its highest bits.
struct nf3 : half_scale {
  static constexpr int run = 16;
  static constexpr int words = 2;  // low bits, top bits
  static constexpr int quant_bytes = 24;
  static constexpr int low_at = 8;
  static constexpr bool rounds_last = true;

  // clang-format off
  static constexpr float table[8] = {
                     -1.0f, -0.4786292016506195f,  -0.217141792178154f,                 0.0f,
      0.16093020141124725f, 0.33791524171829224f,  0.5626170039176941f,                 1.0f};
  // clang-format on

  template <typename T>
  static T value(int code, float d) {
    return to<T>(table[code] * d);
  }
  static int code_of(const uint8_t* block, int e) {
    return (block[e / 8] >> e % 8 & 1) * 4 + (block[low_at + e / 4] >> (6 - 2 * (e % 4)) & 3);
  }

  template <typename T, typename Code, int N>
  static simd<T, N> unscaled(const simd<Code, N>& code) {
    return value_in<T, table>(code);
  }

  // Codes of the 16 elements from `e` on of one block; higher bits are unspecified.
  static simd<uint32_t, 16> codes_of_16(const uint8_t* block, int e) {
    using U = simd<uint32_t, 16>;
    uint32_t low;
    uint16_t top;
    std::memcpy(&low, block + low_at + e / 4, sizeof low);
    std::memcpy(&top, block + e / 8, sizeof top);
    const U i = U::iota(), byte = i >> 2;
    const U down = (byte << 3) + U(6) - ((i - (byte << 2)) << 1);
    return ((U(low) >> down) & U(3)) | ((U(uint32_t(top)) >> i) << 2);
  }

  static constexpr int element(int k) { return k; }
  static constexpr int first_element(int o) { return o; }

  template <int N>
  static void load(const uint8_t* weight, uint32_t /*scale_offset*/, uint64_t block, int o,
                   simd<uint32_t, N> (&word)[2]) {
    const uint8_t* p = weight + block * quant_bytes;
    if constexpr (N == 1) {
      uint32_t low;
      uint16_t top;
      std::memcpy(&low, p + low_at + o / 4, sizeof low);
      std::memcpy(&top, p + o / 8, sizeof top);
      word[0] = simd<uint32_t, 1>(low);
      word[1] = simd<uint32_t, 1>(uint32_t(top));
    } else {
      load_lanes(p, word);
    }
  }
  template <int N>
  ORRERY_INLINE static void prefetch_codes(const uint8_t* weight, uint32_t /*scale_offset*/, uint64_t block, int) {
    prefetch<N * quant_bytes / 4>(weight + block * quant_bytes);
  }

  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    return unscaled<T>(code(word, k));
  }
  template <int N>
  static simd<uint16_t, 2 * N> pair_code(const simd<uint32_t, N> (&first)[2], const simd<uint32_t, N> (&second)[2],
                                         int k) {
    return lower_halves(code(first, k), code(second, k));
  }

 private:
  // The k-th code; higher bits are unspecified.
  template <typename U>
  static U code(const U (&word)[2], int k) {
    const U top = k < 2 ? word[1] << (2 - k) : word[1] >> (k - 2);
    const U low = word[0] >> (k / 4 * 8 + 6 - 2 * (k % 4));
    return (low & U(3)) | (top & U(~3u));
  }

  // Lane i has quarter i % 4 of block i / 4; lane 0 has a first quarter. A block is six words, of which two are shared
  // by two lanes each.
  template <int N>
  static void load_lanes(const uint8_t* p, simd<uint32_t, N> (&word)[2]) {
    using U = simd<uint32_t, N>;
    const U odd_quarter = U::iota() & U(1);
    word[0] = load_grouped_words<4, 6, N>(p, [](int quarter) { return 2 + quarter; });
    word[1] = load_grouped_words<4, 6, N>(p, [](int quarter) { return quarter / 2; }) >> (odd_quarter << 4);
  }
};

// The low four bits of all codes are in one plane, the top two in a second one after it. Sixteen elements share two
// words of the first plane and one of the second, in an interleaved order.
struct fp6 : half_scale {
  static constexpr int run = 16;
  static constexpr int words = 3;  // two of the low plane, one of the top plane
  static constexpr int quant_bytes = 48;
  static constexpr int low_bytes = 32, top_bytes = 16;  // of a block in each plane

  // A code byte is the sign, two zeros and five bits of magnitude. The scale includes the exponent's bias.
  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(half_of_bits(code << 8 | 0x80)), to<T>(d));
  }
  // The code of element e, from the block's bytes in the two planes.
  static int code_of(const uint8_t* low, const uint8_t* top, int e) {
    uint32_t word[3];
    std::memcpy(&word[0], low + e / 16 * 8, 8);
    std::memcpy(&word[2], top + e / 16 * 4, 4);
    const int i = e % 16 / 4;
    return code_bytes(word[i / 2] << (i % 2 * 4), word[2] << (2 * i)) >> (8 * place_of[e % 4]) & 0xFF;
  }

  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint32_t, N>& code) {
    return convert<T>(lookup_signed(half_by_high_byte, code, 0));
  }
  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint16_t, N>& code) {
    return half_by_byte(code);
  }

  // All codes of one block in order, from its bytes in the two planes.
  static simd<uint8_t, 64> codes_of_block(const uint8_t* low, const uint8_t* top) {
    using U = simd<uint32_t, 16>;
    static constexpr uint32_t pair[16] = {1, 4, 16, 64, 1, 4, 16, 64, 1, 4, 16, 64, 1, 4, 16, 64};
    auto words = convert<int64_t>(simd<uint32_t, 8>::load(reinterpret_cast<const uint32_t*>(low)));
    words = words | words << 36;  // each word, and its low nibbles moved up
    const U b = bit_cast<uint32_t>(words);
    const auto a = bit_cast<uint32_t>(load_shared<float, 16, 4, float>(top)) * U::load(pair);
    const U crossed = code_bytes(b, a), ends = U(0xFF00FF);
    const U odd = (crossed >> 8) & ends, even = crossed & ends;  // elements 0, 1 and 2, 3
    const U in_order = ((odd | odd >> 8) & U(0xFFFF)) | ((even << 16) & U(0xFF0000)) | ((even << 8) & U(0xFF000000));
    return bit_cast<uint8_t>(in_order);
  }

  // Of each four elements, the third and fourth come first.
  static constexpr int element(int k) { return k / 4 * 4 + (k + 2) % 4; }
  static constexpr int first_element(int o) { return o; }

  template <int N>
  static void load(const uint8_t* weight, uint32_t scale_offset, uint64_t block, int o, simd<uint32_t, N> (&word)[3]) {
    simd<uint32_t, N> low[2], top[1];
    load_words(weight + block * low_bytes + o / 2, low);
    load_words(top_plane(weight, scale_offset) + block * top_bytes + o / 4, top);
    word[0] = low[0];
    word[1] = low[1];
    word[2] = top[0];
  }
  template <int N>
  ORRERY_INLINE static void prefetch_codes(const uint8_t* weight, uint32_t scale_offset, uint64_t block, int o) {
    prefetch<N * 8>(weight + block * low_bytes + o / 2);
    prefetch<N * 4>(top_plane(weight, scale_offset) + block * top_bytes + o / 4);
  }

  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[3], int k) {
    return convert_exact<T>(value_of_byte<six_bits>(four_indexes(word, k), place_of[element(k) % 4]));
  }
  template <int N>
  static simd<uint16_t, 2 * N> pair_code(const simd<uint32_t, N> (&first)[3], const simd<uint32_t, N> (&second)[3],
                                         int k) {
    const int byte = place_of[element(k) % 4];
    const auto a = four_codes(first, k), b = four_codes(second, k);
    return (byte < 2 ? lower_halves(a, b) : upper_halves(a, b)) >> byte % 2 * 8;
  }

 private:
  static constexpr int place_of[4] = {1, 3, 0, 2};

  // The four codes that the k-th one is among, a byte each.
  template <typename U>
  static U four_codes(const U (&word)[3], int k) {
    const int i = k / 4;
    return code_bytes(word[i / 2] << (i % 2 * 4), word[2] << (2 * i));
  }
  // The same codes, each in the low six bits of its byte: sign and magnitude.
  template <typename U>
  static U four_indexes(const U (&word)[3], int k) {
    const int i = k / 4;
    const U low = i % 2 == 0 ? word[i / 2] >> 4 : word[i / 2], top = i == 0 ? word[2] >> 2 : word[2] << (2 * i - 2);
    return (low & U(0x0F0F0F0F)) | (top & U(0x30303030));
  }
  struct six_bits {
    static constexpr float value(int index) {
      const float magnitude = half_of_high_byte::value(index & 31);
      return index & 32 ? -magnitude : magnitude;
    }
  };

  static const uint8_t* top_plane(const uint8_t* weight, uint32_t scale_offset) {
    return weight + scale_offset / quant_bytes * low_bytes;
  }

  // Four codes at once from the high nibbles of `b` and the two high bits of the bytes of `a`.
  template <typename U>
  static U code_bytes(const U& b, const U& a) {
    return (a & U(0x80808080)) | (((a & U(0x40404040)) | ((b >> 2) & U(0x3C3C3C3C))) >> 2);
  }
};

// A sign and seven bits whose magnitude Rule tells, and a scale.
template <typename Rule>
struct signed_magnitudes : whole_bytes, float_scale {
  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint32_t, N>& code) {
    return convert_exact<T>(lookup_signed(magnitudes, code, 0));
  }
  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint16_t, N>& code) {
    return Rule::half_of(code);
  }
  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    return convert_exact<T>(lookup_signed(magnitudes, word[k / 4], k % 4));
  }

 private:
  static constexpr auto magnitudes = float_table<7>::of([](int code) { return Rule::magnitude(code); });
};

// Sign, 4 exponent bits of bias 7, 3 mantissa bits; no infinity and no NaN.
struct e4m3 {
  static constexpr float magnitude(int code) {
    return code < 8 ? code * 0x1p-9f : std::bit_cast<float>((code << 20) + (120 << 23));
  }
  // A half has the same mantissa and an exponent with a bias of 8 more, also for subnormals.
  template <int N>
  static simd<c10::Half, N> half_of(const simd<uint16_t, N>& code) {
    const auto shifted = bit_cast<int16_t>(code << 8) >> 1;
    return bit_cast<c10::Half>(shifted & simd<int16_t, N>(int16_t(0xBF80))) * simd<c10::Half, N>(c10::Half(256.0f));
  }
};
struct fp8_e4m3 : signed_magnitudes<e4m3> {
  template <typename T>
  static T value(int code, float d) {
    const int m = code & 0x7F;
    const float magnitude = m < 8 ? m * 0x1p-9f : half_of_bits((m << 7) + 0x2000);
    return times(to<T>(code & 0x80 ? -magnitude : magnitude), to<T>(d));
  }
};

// The high byte of a half whose low byte is 0x80: no value is zero, and all with the highest exponent are NaN. The
// scale plane exists but is not read.
struct fp8_e5m2 : whole_bytes, split_defaults {
  static constexpr int scale_bytes = 4;
  static constexpr bool codes_are_halves = true;

  template <typename T>
  static T value(int code) {
    return to<T>(half_of_bits(half_bits(code)));
  }
  static constexpr uint16_t half_bits(int code) { return static_cast<uint16_t>(code << 8 | 0x80); }

  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint32_t, N>& code) {
    return convert<T>(lookup_signed(half_by_high_byte, code, 0));
  }
  template <typename T, int N>
  static simd<T, N> unscaled(const simd<uint16_t, N>& code) {
    return half_by_byte(code);
  }
  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    return convert_exact<T>(lookup_signed(half_by_high_byte, word[k / 4], k % 4));
  }

  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const uint8_t*) {
    return s;
  }
  template <typename T, int N, int Share>
  static simd<T, 2 * N> scaled_pairs(const simd<T, 2 * N>& s, const uint8_t*, const uint8_t*) {
    return s;
  }
};

// As the fused kernels read it: the low byte of the half is 0, and the scale applies.
struct e5m2 {
  static constexpr float magnitude(int code) {
    const int exponent = code >> 2, mantissa = code % 4;
    if (exponent == 31) return std::bit_cast<float>(mantissa == 0 ? 0x7F800000 : 0x7FC00000);
    if (exponent == 0) return mantissa * 0x1p-16f;
    return std::bit_cast<float>((exponent + 112) << 23 | mantissa << 21);
  }
  template <int N>
  static simd<c10::Half, N> half_of(const simd<uint16_t, N>& code) {
    return bit_cast<c10::Half>(code << 8);
  }
};
struct fp8_e5m2_scaled : signed_magnitudes<e5m2> {
  template <typename T>
  static T value(int code, float d) {
    return times(to<T>(half_of_bits(code << 8)), to<T>(d));
  }
};

}  // namespace orrery::formats
