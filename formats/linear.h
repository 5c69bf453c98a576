// The linear block formats: a value is an affine function of a small integer, with one scale for 64 elements.
//
// A format that is read in runs has
//   run                 elements that a work-item takes in a pass
//   quant_bytes         bytes of a block in the quant plane
//   scale_bytes         bytes of a block in the scale plane
//   element(k)          where in the block, from the run's first byte on, the k-th term of the run's sum lies
//   value<T>(code, d..) the value rule, for one element
//   term<T>(words, k)   the unscaled value of the k-th term for each lane
//   scaled(...)         what a run adds to the accumulator
#pragma once

#include <cstdint>
#include <cstring>

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

// Two 4-bit codes a byte: byte j holds element j in its low nibble and element j + 32 in its high one.
struct nibble_pairs {
  static constexpr int run = 16;
  static constexpr int words = 2;
  static constexpr int quant_bytes = 32;

  // A work-item's run is 8 bytes, so two runs of 8 elements that lie 32 apart, taken by turns.
  static constexpr int element(int k) { return k / 2 + 32 * (k % 2); }
  static constexpr int first_element(int in_block) { return in_block / 2; }

  template <int N>
  static simd<uint32_t, N> code(const simd<uint32_t, N> (&word)[2], int k) {
    return word[k / 8] >> (4 * (k % 8));
  }
};

struct q4_0 : nibble_pairs {
  static constexpr int scale_bytes = 2;
  static constexpr bool has_offset = false;

  template <typename T>
  static T value(int code, T d) {
    return times(d, to<T>(code - 8));
  }

  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    if constexpr (N == 1) {
      return simd<T, 1>(to<T>(static_cast<int>(code(word, k)[0] & 15) - 8));
    } else {
      static constexpr held_t<T> values[16] = {-8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6, 7};
      return lookup16(simd<T, 16>::load_held(values), code(word, k));
    }
  }

  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const uint8_t* scales) {
    return s * load_shared<T, N, Share, c10::Half>(scales);
  }
};

struct q4_1 : nibble_pairs {
  static constexpr int scale_bytes = 4;
  static constexpr bool has_offset = true;

  template <typename T>
  static T value(int code, T d, T m) {
    return plus(times(d, to<T>(code)), m);
  }

  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    if constexpr (N == 1) {
      return simd<T, 1>(to<T>(static_cast<int>(code(word, k)[0] & 15)));
    } else {
      static constexpr held_t<T> values[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
      return lookup16(simd<T, 16>::load_held(values), code(word, k));
    }
  }

  // `x` is the sum of the run's inputs.
  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const simd<T, N>& x, const uint8_t* scales) {
    simd<T, N> d, m;
    load_shared_pairs<Share>(scales, d, m);
    return s * d + x * m;
  }

 private:
  template <int Share, typename T, int N>
  static void load_shared_pairs(const uint8_t* scales, simd<T, N>& d, simd<T, N>& m) {
    const auto pairs = load_shared<uint32_t, N, Share, uint32_t>(scales);
    d = convert<T>(half_bits(pairs));
    m = convert<T>(half_bits(pairs >> 16));
  }
  // Halves from the low 16 bits of each lane.
  template <int N>
  static simd<c10::Half, N> half_bits(const simd<uint32_t, N>& bits) {
    const auto narrow = convert<uint16_t>(bits);
    c10::Half raw[N];
    narrow.store(reinterpret_cast<uint16_t*>(raw));
    return simd<c10::Half, N>::load(raw);
  }
};

struct q8_0 {
  static constexpr int run = 8;
  static constexpr int words = 2;
  static constexpr int quant_bytes = 64;
  static constexpr int scale_bytes = 4;
  static constexpr bool has_offset = false;

  static constexpr int element(int k) { return k; }
  static constexpr int first_element(int in_block) { return in_block; }

  template <typename T>
  static T value(int code, T d) {
    return times(d, to<T>(code));
  }

  template <typename T, int N>
  static simd<T, N> term(const simd<uint32_t, N> (&word)[2], int k) {
    const auto top = bit_cast<int32_t>(word[k / 4] << (24 - 8 * (k % 4)));
    return convert<T>(top >> 24);
  }

  template <typename T, int N, int Share>
  static simd<T, N> scaled(const simd<T, N>& s, const uint8_t* scales) {
    return s * load_shared<T, N, Share, float>(scales);
  }
};

// q5_0 and q5_1 are arrays of 44-byte blocks: d, m, the fifth bits as a word, then nibbles as in q4_0.
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
    return simd<c10::Half, 1>::load(reinterpret_cast<const c10::Half*>(p)).held_at(0);
  }

 private:
  // Bit i of a word as 16 in lane i.
  template <int N>
  static simd<uint32_t, N> spread_bits(uint32_t bits) {
    using U = simd<uint32_t, N>;
    U r;
    ORRERY_UNROLL for (int c = 0; c < U::chunks; ++c) {
      r.v[c] = (((bits >> (c * U::W)) >> detail::iota<uint32_t, U::W>()) & 1u) << 4;
    }
    return r;
  }
};

struct q5_0 : q5_block {
  // In float for every T, rounded to T at the end; the offset field is not read.
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
