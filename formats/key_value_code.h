// The code of one-byte key/value caches: one byte an element, without blocks and scales.
//
// Bit 7 of a byte is the sign. The code in the others is the exponent and the upper three mantissa bits of a half, less
// an offset that says which range of magnitudes the 128 codes cover:
//
//           offset   code 0              code 127
//   key     48       0.0020751953125     124
//   value   24       0.0002593994140625  15.5
//
// There is no zero, infinity or NaN. The mantissa bits below are cut off by the encoder; the decoder gives the middle
// of the cell.
#pragma once

#include <bit>
#include <cstdint>

#include "includes/simd.h"

namespace orrery::formats {

template <int Offset>
struct key_value_code {
  // The rule: the half of a byte.
  static constexpr uint16_t half_bits(int byte) {
    return static_cast<uint16_t>((byte & 128) << 8 | ((byte & 127) + Offset) << 7 | 0x40);
  }

  // The values of N bytes, which are the same numbers as half and as float.
  template <typename T, int N>
  ORRERY_INLINE static simd<T, N> decode(const uint8_t* p) {
    // A signed byte has its sign in the highest bit too.
    const auto signed_bytes = reinterpret_cast<const int8_t*>(p);
    if constexpr (sizeof(register_type<T>) == sizeof(uint16_t)) {
      const auto code = (load_converted<uint16_t, N>(signed_bytes) << 7) & simd<uint16_t, N>(0x8000 | 127 << 7);
      return bit_cast<T>(code + simd<uint16_t, N>(half_bits(0)));
    } else {
      const auto code = (load_converted<uint32_t, N>(signed_bytes) << code_at) & words<N>(sign | 127u << code_at);
      return convert_exact<T>(bit_cast<float>(code + words<N>(smallest)));
    }
  }

  // A magnitude outside the range becomes the smallest or the largest one, as zeros and infinities do; so does a NaN,
  // the largest one with its sign.
  template <int N>
  ORRERY_INLINE static void encode(const simd<c10::Half, N>& x, uint8_t* p) {
    const auto bits = bit_cast<uint32_t>(convert<float>(x));
    const auto size = at_least(at_most(bits & words<N>(~sign), words<N>(largest)), words<N>(smallest));
    const auto code = (size >> code_at) - words<N>(smallest >> code_at);
    store_converted(p, code | (bits >> 24 & words<N>(128)));
  }

 private:
  // All values are normal halves. As floats they have 112 added to the exponent, and the code's lowest bit is bit 20.
  static constexpr int code_at = 20;
  static constexpr uint32_t float_bits(int code) { return (uint32_t(half_bits(code)) << 13) + (112u << 23); }
  static constexpr uint32_t sign = 0x80000000, smallest = float_bits(0), largest = float_bits(127);

  template <int N>
  static simd<uint32_t, N> words(uint32_t value) {
    return value;
  }
  template <int N>
  static simd<uint32_t, N> at_most(const simd<uint32_t, N>& a, const simd<uint32_t, N>& b) {
    return select_less(a, b, a, b);
  }
  template <int N>
  static simd<uint32_t, N> at_least(const simd<uint32_t, N>& a, const simd<uint32_t, N>& b) {
    return select_less(a, b, b, a);
  }
};

using key_code = key_value_code<48>;
using value_code = key_value_code<24>;

}  // namespace orrery::formats
