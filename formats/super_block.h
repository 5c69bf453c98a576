// The super-block formats: 256 elements in sub-blocks of 16 or 32. Each sub-block has a small scale, which one or two
// halves per block scale again. Blocks are as in GGUF files.
//
// Each has
//   bytes          of a block
//   value(b, e)    the value rule: element e of block b, all arithmetic in float
//   values(b, h)   elements 16 h to 16 h + 15, by the same arithmetic
//
// q4_k, q5_k and q6_k are read by 16 work-items per block, as four stretches of elements. A place p of 0 to 15 has
// `span` neighbouring elements of each stretch: four, or in q5_k two, and there also the two 16 elements after them.
//   element(p, s, k)     element k of stretch s at place p
//   part<N>(b, p)        block b as N places from p on need it; N is 1 or 16
//   code<s, k>()         the codes, as exact floats
//   scale(s), minimum(s) the small scales and minimums of the sub-blocks, as exact floats
#pragma once

#include <cstdint>

#include "bytes.h"
#include "includes/codes.h"
#include "includes/simd.h"
#include "q8_1.h"

namespace orrery::formats {

namespace detail {

inline simd<uint32_t, 16> widened(const uint8_t* p) { return convert<uint32_t>(simd<uint8_t, 16>::load(p)); }

// Values of nibbles that stay in the upper half of their byte, and of codes minus 32.
struct times_16 {
  static constexpr int value(int code) { return 16 * code; }
};
struct minus_32 {
  static constexpr int value(int code) { return code - 32; }
};

// (d * scale) * q - dmin * minimum
template <typename V>
inline V affine(float d, uint32_t scale, const V& q, float dmin, uint32_t minimum) {
  return V(d * static_cast<float>(scale)) * q - V(dmin * static_cast<float>(minimum));
}

}  // namespace detail

// Four 2-bit codes per byte; sub-blocks of 16.
struct q2_k {
  static constexpr int bytes = 84;
  static constexpr int scales_at = 0, codes_at = 16, d_at = 80, dmin_at = 82;

  static float value(const uint8_t* block, int e) {
    const int n = e / 128, g = e % 128 / 32, l = e % 32;
    const uint32_t code = block[codes_at + 32 * n + l] >> (2 * g) & 3;
    const uint8_t s = block[scales_at + 8 * n + l / 16 + 2 * g];
    return detail::affine(d(block), s & 15u, static_cast<float>(code), dmin(block), s >> 4);
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    using U = simd<uint32_t, 16>;
    const int n = h / 8, g = h % 8 / 2;
    const U codes = (detail::widened(block + codes_at + 32 * n + 16 * (h % 2)) >> (2 * g)) & U(3u);
    const uint8_t s = block[scales_at + h];
    return detail::affine(d(block), s & 15u, convert<float>(bit_cast<int32_t>(codes)), dmin(block), s >> 4);
  }

  static float d(const uint8_t* block) { return half_at(block + d_at); }
  static float dmin(const uint8_t* block) { return half_at(block + dmin_at); }

  // Work-items that share the dot product of a block with eight blocks of quantized activations.
  static constexpr int parts = 16;

  static float dot(const uint8_t* block, const uint8_t* activations, int part) {
    const int n = part / 8, k = part % 8;
    float sum = 0, offset = 0;
    for (int i = 0; i < 4; ++i) {
      const uint8_t* other = activations + (4 * n + i) * q8_1::bytes;
      const uint8_t s = block[scales_at + 8 * n + k / 4 + 2 * i];
      int codes = 0, total = 0;
      for (int j = 0; j < 4; ++j) {
        const int value = q8_1::codes(other)[4 * k + j];
        codes += (block[codes_at + 4 * part + j] >> 2 * i & 3) * value;
        total += value;
      }
      sum = sum + q8_1::d(other) * static_cast<float>(codes * (s & 15));
      offset = offset + q8_1::d(other) * static_cast<float>((s >> 4) * total);
    }
    return sum * d(block) - offset * dmin(block);
  }

  // The activations of a block in the order of its bytes. Codes are multiplied without being shifted down, which makes
  // them 4^i times too large; the scales are divided by that. Both are exact.
  static constexpr int blocks_at_once = 1;
  struct alignas(64) inputs {
    int8_t codes[4][64];
    float d[4][16];
    float total[4][16];  // sum of four codes, scaled; exact

    void fill(const uint8_t* activations, int) {
      for (int i = 0; i < 4; ++i) {
        for (int part = 0; part < 16; ++part) {
          const uint8_t* other = activations + (4 * (part / 8) + i) * q8_1::bytes;
          const int8_t* from = q8_1::codes(other) + 4 * (part % 8);
          std::memcpy(codes[i] + 4 * part, from, 4);
          d[i][part] = q8_1::d(other) / static_cast<float>(1 << 2 * i);
          total[i][part] = q8_1::d(other) * static_cast<float>(from[0] + from[1] + from[2] + from[3]);
        }
      }
    }
  };

  // dot() of all sixteen parts.
  ORRERY_INLINE static simd<float, 16> dots(const uint8_t* block, const inputs& in) {
    using F = simd<float, 16>;
    using I = simd<int32_t, 16>;
    const I lane = I::iota(), by_stretch = (lane >> 3 << 3) + (lane >> 2 & I(1)) + ((lane & I(3)) << 1);
    const I packed = shuffle(bit_cast<int32_t>(detail::widened(block + scales_at)), by_stretch);
    const F scales = convert<float>(packed & I(15)), minimums = convert<float>(packed >> 4);
    const auto codes = hold_in_registers(simd<uint32_t, 16>::load(reinterpret_cast<const uint32_t*>(block + codes_at)));
    F sum, offset;
    ORRERY_UNROLL for (int i = 0; i < 4; ++i) {
      const I spread = (lane >> 2 << 2) + I(i);
      const I products =
          dot_bytes(I(0), bytes64::of(codes & simd<uint32_t, 16>(0x03030303u << 2 * i)), bytes64::load(in.codes[i]));
      sum += F::load(in.d[i]) * (convert<float>(products) * shuffle(scales, spread));
      offset += F::load(in.total[i]) * shuffle(minimums, spread);
    }
    return sum * F(d(block)) - offset * F(dmin(block));
  }
};

// Common to q4_k and q5_k: eight sub-blocks of 32, with 6-bit scales and minimums in 12 bytes, and a low nibble per
// element. Elements 64 p + l and 64 p + 32 + l share a byte.
struct nibble_super_block {
  static constexpr int d_at = 0, dmin_at = 2, scales_at = 4;

  static uint32_t scale(const uint8_t* block, int j) {
    const uint8_t* s = block + scales_at;
    return j < 4 ? s[j] & 63 : (s[j + 4] & 15) | (s[j - 4] >> 2 & 48);
  }
  static uint32_t minimum(const uint8_t* block, int j) {
    const uint8_t* s = block + scales_at;
    return j < 4 ? s[j + 4] & 63 : s[j + 4] >> 4 | (s[j] >> 2 & 48);
  }
  static float d(const uint8_t* block) { return half_at(block + d_at); }
  static float dmin(const uint8_t* block) { return half_at(block + dmin_at); }

 protected:
  // The sub-block of stretch s at place p.
  static constexpr int sub_block(int p, int s) { return s / 2 * 4 + p / 8 * 2 + s % 2; }
  static constexpr int first_of(int p, int s) { return 32 * sub_block(p, s); }

  // Scales and minimums of the sub-blocks of N places.
  template <int N>
  struct small_scales {
    float scales[4], minimums[4];

    small_scales(const uint8_t* block, int p) {
      for (int s = 0; s < 4; ++s) {
        scales[s] = static_cast<float>(nibble_super_block::scale(block, sub_block(p, s)));
        minimums[s] = static_cast<float>(nibble_super_block::minimum(block, sub_block(p, s)));
      }
    }
    simd<float, N> scale(int s) const { return scales[s]; }
    simd<float, N> minimum(int s) const { return minimums[s]; }
  };
};

// For sixteen places: each group of four lanes holds the values of the four stretches for its places. A shuffle within
// four lanes, which needs no index register, broadcasts one of them.
template <>
struct nibble_super_block::small_scales<16> {
  simd<float, 16> scales, minimums;

  ORRERY_INLINE small_scales(const uint8_t* block, int) {
    const auto w = [&](int i) ORRERY_INLINE { return read<uint32_t>(block + scales_at + 4 * i); };
    const uint32_t w0 = w(0), w1 = w(1), w2 = w(2);
    const uint32_t packed[4] = {w0 & 0x3F3F3F3F, (w2 & 0x0F0F0F0F) | (w0 >> 2 & 0x30303030), w1 & 0x3F3F3F3F,
                                (w2 >> 4 & 0x0F0F0F0F) | (w1 >> 2 & 0x30303030)};
    const auto bytes = simd<uint8_t, 16>::load(reinterpret_cast<const uint8_t*>(packed));
    const auto all = convert<float>(convert<int32_t>(bytes));
    using I = simd<int32_t, 16>;
    const I lane = I::iota(), fours = (lane & I(1)) + ((lane & I(2)) << 1) + (lane >> 3 << 1);
    scales = shuffle(all, fours);
    minimums = shuffle(all, fours + I(8));
  }
  simd<float, 16> scale(int s) const { return spread(scales, s); }
  simd<float, 16> minimum(int s) const { return spread(minimums, s); }

 private:
  static simd<float, 16> spread(const simd<float, 16>& fours, int s) {
    using I = simd<int32_t, 16>;
    return shuffle(fours, (I::iota() >> 2 << 2) + I(s));
  }
};

struct q4_k : nibble_super_block {
  static constexpr int bytes = 144;
  static constexpr int codes_at = 16;

  static float value(const uint8_t* block, int e) {
    const int p = e / 64, h = e % 64 / 32, l = e % 32, j = e / 32;
    const uint32_t code = block[codes_at + 32 * p + l] >> (4 * h) & 15;
    return detail::affine(d(block), scale(block, j), static_cast<float>(code), dmin(block), minimum(block, j));
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    using U = simd<uint32_t, 16>;
    const int j = h / 2;
    const U codes = (detail::widened(block + codes_at + 32 * (j / 2) + 16 * (h % 2)) >> (4 * (j % 2))) & U(15u);
    return detail::affine(d(block), scale(block, j), convert<float>(bit_cast<int32_t>(codes)), dmin(block),
                          minimum(block, j));
  }

  static constexpr int span = 4;
  static constexpr int element(int p, int s, int k) { return first_of(p, s) + span * (p % 8) + k; }

  // High nibbles stay in the upper half of their bytes, so the codes of odd stretches are 16 times too large.
  static constexpr bool high_codes_in_place = true;
  template <int N>
  struct part : small_scales<N> {
    // Words from a place's first byte and from its second: a second load costs less than shifts by eight bits. The last
    // lane reads one byte past the block.
    simd<uint32_t, N> word[2][2];

    ORRERY_INLINE part(const uint8_t* block, int p) : small_scales<N>(block, p) {
      for (int i = 0; i < 2; ++i) {
        const uint8_t* at = block + codes_at + 64 * i + 4 * p;
        word[i][0] = hold_in_registers(words(at));
        word[i][1] = N == 1 ? word[i][0] >> 8 : hold_in_registers(words(at + 1));
      }
    }
    template <int S, int K>
    simd<float, N> code() const {
      using rule = std::conditional_t<S % 2 == 1, detail::times_16, plain_code>;
      return value_of_code<rule, 4, K / 2 * 16 + S % 2 * 4>(word[S / 2][K % 2]);
    }

   private:
    static simd<uint32_t, N> words(const uint8_t* p) {
      return simd<uint32_t, N>::load(reinterpret_cast<const uint32_t*>(p));
    }
  };
};

// A fifth bit for each element in 32 bytes: bit j of byte l belongs to element l of sub-block j.
struct q5_k : nibble_super_block {
  static constexpr int bytes = 176;
  static constexpr int fifth_at = 16, codes_at = 48;

  static float value(const uint8_t* block, int e) {
    const int p = e / 64, h = e % 64 / 32, l = e % 32, j = e / 32;
    const uint32_t code = (block[codes_at + 32 * p + l] >> (4 * h) & 15) | (block[fifth_at + l] >> j & 1) << 4;
    return detail::affine(d(block), scale(block, j), static_cast<float>(code), dmin(block), minimum(block, j));
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    using U = simd<uint32_t, 16>;
    const int j = h / 2, l = 16 * (h % 2);
    const U low = (detail::widened(block + codes_at + 32 * (j / 2) + l) >> (4 * (j % 2))) & U(15u);
    const U fifth = ((detail::widened(block + fifth_at + l) >> j) & U(1u)) << 4;
    return detail::affine(d(block), scale(block, j), convert<float>(bit_cast<int32_t>(low | fifth)), dmin(block),
                          minimum(block, j));
  }

  static constexpr int span = 2;
  static constexpr int element(int p, int s, int k) { return first_of(p, s) + span * (p % 8) + k % 2 + 16 * (k / 2); }

  static constexpr bool high_codes_in_place = false;
  template <int N>
  struct part : small_scales<N> {
    simd<uint32_t, N> word[4];  // per stretch: codes of two neighbours, and of the two 16 elements after them

    ORRERY_INLINE part(const uint8_t* block, int p) : small_scales<N>(block, p) {
      using U = simd<uint32_t, N>;
      const U fifth = fifth_bits(block, p);
      for (int s = 0; s < 4; s += 2) {
        const U both = pairs(block + codes_at + 32 * s, p);
        const auto bit = [&](int j) { return (j < 4 ? fifth << (4 - j) : fifth >> (j - 4)) & U(0x10101010u); };
        word[s] = (both & U(0x0F0F0F0Fu)) | bit(2 * s);
        word[s + 1] = ((both >> 4) & U(0x0F0F0F0Fu)) | bit(2 * s + 1);
      }
    }
    template <int S, int K>
    simd<float, N> code() const {
      return value_of_code<plain_code, 5, 8 * K>(word[S]);
    }

   private:
    // The two bytes of a place, and the two 16 bytes after them.
    static simd<uint32_t, N> pairs(const uint8_t* bytes, int p) {
      if constexpr (N == 1) {
        const uint8_t* at = bytes + p / 8 * 32 + p % 8 * 2;
        return simd<uint32_t, 1>(read<uint16_t>(at) | uint32_t(read<uint16_t>(at + 16)) << 16);
      } else {
        return word_pairs<16>(bytes);
      }
    }
    // Bit j of the four bytes is for sub-block j at places below 8, and for sub-block j + 2 at the others.
    static simd<uint32_t, N> fifth_bits(const uint8_t* block, int p) {
      if constexpr (N == 1) {
        const uint8_t* at = block + fifth_at + p % 8 * 2;
        return simd<uint32_t, 1>((read<uint16_t>(at) | uint32_t(read<uint16_t>(at + 16)) << 16) >> (p / 8 * 2));
      } else {
        const auto all = word_pairs<0>(block + fifth_at);
        return select(mask<16>{0xFF}, all, all >> 2);
      }
    }
    // The low half of lane i < 8 is the 16-bit word i, the high half word i + 8. Lanes 8 to 15 are the same from word
    // Second on.
    template <int Second>
    static simd<uint32_t, 16> word_pairs(const uint8_t* bytes) {
      struct order {
        alignas(64) uint16_t from[32] = {};
        constexpr order() {
          for (int i = 0; i < 32; ++i) from[i] = static_cast<uint16_t>(i / 16 * Second + i % 16 / 2 + i % 2 * 8);
        }
      };
      static constexpr order words;
      using W = simd<uint16_t, 32>;
      return bit_cast<uint32_t>(shuffle(W::load(reinterpret_cast<const uint16_t*>(bytes)), W::load(words.from)));
    }
  };
};

// Four low bits and two high bits per element, minus 32; sub-blocks of 16 with signed scales and no minimum.
struct q6_k {
  static constexpr int bytes = 210;
  static constexpr int low_at = 0, high_at = 128, scales_at = 192, d_at = 208;

  static float value(const uint8_t* block, int e) {
    const int n = e / 128, g = e % 128 / 32, l = e % 32;
    const int low = block[low_at + 64 * n + 32 * (g & 1) + l] >> (4 * (g / 2)) & 15;
    const int high = block[high_at + 32 * n + l] >> (2 * g) & 3;
    return (d(block) * scale(block, 8 * n + l / 16 + 2 * g)) * static_cast<float>((low | high << 4) - 32);
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    using U = simd<uint32_t, 16>;
    const int n = h / 8, g = h % 8 / 2, l = 16 * (h % 2);
    const U low = (detail::widened(block + low_at + 64 * n + 32 * (g & 1) + l) >> (4 * (g / 2))) & U(15u);
    const U high = ((detail::widened(block + high_at + 32 * n + l) >> (2 * g)) & U(3u)) << 4;
    const auto codes = bit_cast<int32_t>(low | high) - simd<int32_t, 16>(32);
    return simd<float, 16>(d(block) * scale(block, h)) * convert<float>(codes);
  }

  static float scale(const uint8_t* block, int s) {
    return static_cast<float>(static_cast<int8_t>(block[scales_at + s]));
  }
  static float d(const uint8_t* block) { return half_at(block + d_at); }

  static constexpr int element(int p, int s, int k) { return 128 * (p / 8) + 32 * s + 4 * (p % 8) + k; }

  template <int N>
  struct part {
    simd<uint32_t, N> word[4];  // per stretch: codes of four neighbours
    simd<float, 16> scales;
    int p;

    ORRERY_INLINE part(const uint8_t* block, int p) : scales(scales_of(block)), p(p) {
      using U = simd<uint32_t, N>;
      U low[2];
      low_words(block + low_at, p, low);
      const U high = U::load(reinterpret_cast<const uint32_t*>(block + high_at + 4 * p));
      const U four(0x0F0F0F0Fu), two(0x30303030u);
      word[0] = (low[0] & four) | ((high << 4) & two);
      word[1] = (low[1] & four) | ((high << 2) & two);
      word[2] = ((low[0] >> 4) & four) | (high & two);
      word[3] = ((low[1] >> 4) & four) | ((high >> 2) & two);
    }
    template <int S, int K>
    simd<float, N> code() const {
      return value_of_code<detail::minus_32, 6, 8 * K>(word[S]);
    }
    simd<float, N> scale(int s) const {
      if constexpr (N == 1) {
        return simd<float, 1>(scales[8 * (p / 8) + p % 8 / 4 + 2 * s]);
      } else {
        using I = simd<int32_t, 16>;
        const I place = I::iota();
        return shuffle(scales, (place >> 3 << 3) + ((place >> 2) & I(1)) + I(2 * s));
      }
    }

   private:
    static simd<float, 16> scales_of(const uint8_t* block) {
      const auto bytes = simd<int8_t, 16>::load(reinterpret_cast<const int8_t*>(block + scales_at));
      return convert<float>(convert<int32_t>(bytes));
    }
    static void low_words(const uint8_t* low, int p, simd<uint32_t, N> (&word)[2]) {
      if constexpr (N == 1) {
        for (int i = 0; i < 2; ++i)
          word[i] = simd<uint32_t, 1>(read<uint32_t>(low + 64 * (p / 8) + 32 * i + 4 * (p % 8)));
      } else {
        using I = simd<int32_t, 32>;
        const I to = I::iota();
        const auto from = simd<uint32_t, 32>::load(reinterpret_cast<const uint32_t*>(low));
        const auto both = shuffle(from, (to & I(7)) + ((to & I(8)) << 1) + ((to & I(16)) >> 1));
        word[0] = both.template slice<0, 16>();
        word[1] = both.template slice<16, 16>();
      }
    }
  };
};

}  // namespace orrery::formats
