// Readers that dequantize neighbouring elements of a block, scale included, for dense weights.
//
// A place is a quant byte of a block, or an element if bytes do not hold whole codes. A reader has
//   places, per_place  places of a block, and elements of a place, which are `places` apart
//   quant_bytes        bytes of a block's codes
//   scale_bytes        bytes of a block in the scale plane
//   read<T>(..., out)  out[h], h below per_place: the elements place + h * places and following, one per lane, each
//                      computed in T
// and, if reads_half_bits is set because a code gives the bits of a half, half_bits<C>(...), which returns those bits:
// converting a NaN to float and back can change it.
#pragma once

#include "formats/codebook.h"
#include "formats/planes.h"

namespace orrery::formats {

// Vectors stay within a block, so all lanes share its scale.
constexpr int any_lanes = 128;

// Formats whose bytes hold whole codes.
template <typename Format>
struct byte_reader {
  static constexpr int per_place = Format::codes_per_byte;
  static constexpr int places = 64 / per_place;
  static constexpr int quant_bytes = Format::quant_bytes, scale_bytes = Format::scale_bytes;

  template <typename T, int C>
  static void read(const block_planes& at, uint64_t block, int place, simd<T, C> (&out)[per_place]) {
    using Code = code_lane<T, C>;
    const auto byte = bytes<Code, C>(at, block, place);
    // A code that is a half has no scale, and the plane may be null.
    const uint8_t* scales = Format::codes_are_halves ? nullptr : at.scales + block * scale_bytes;
    if constexpr (per_place == 2 && C >= 16) {
      // One product per code, then look-ups, instead of a product per element.
      const auto values = dequantized<Format, T, any_lanes>(simd<Code, table_size<Code>>::iota(), scales);
      ORRERY_UNROLL for (int p = 0; p < 2; ++p) out[p] = lookup(values, Format::byte_code(byte, p));
    } else {
      ORRERY_UNROLL for (int p = 0; p < per_place; ++p) {
        out[p] = dequantized<Format, T, any_lanes>(Format::byte_code(byte, p), scales);
      }
    }
  }

  static constexpr bool reads_half_bits = Format::codes_are_halves;
  template <int C>
  static simd<uint16_t, C> half_bits(const block_planes& at, uint64_t block, int place) {
    using U = simd<uint16_t, C>;
    return bytes<uint16_t, C>(at, block, place) << 8 | U(Format::half_bits(0));
  }

 private:
  template <typename Lane, int C>
  static simd<Lane, C> bytes(const block_planes& at, uint64_t block, int place) {
    return convert<Lane>(simd<uint8_t, C>::load(at.quants + block * quant_bytes + place));
  }
};

// Codes that are not whole bytes, read sixteen at a time or one by one.
template <int C, typename One, typename Sixteen>
simd<uint32_t, C> gather_codes(int place, One one, Sixteen sixteen) {
  if constexpr (C == 1) {
    return simd<uint32_t, 1>(static_cast<uint32_t>(one(place)));
  } else {
    static_assert(C % 16 == 0);
    alignas(64) uint32_t code[C];
    ORRERY_UNROLL for (int i = 0; i < C; i += 16) sixteen(place + i).store(code + i);
    return simd<uint32_t, C>::load(code);
  }
}

struct nf3_reader {
  static constexpr bool reads_half_bits = false;
  static constexpr int per_place = 1, places = 64;
  static constexpr int quant_bytes = nf3::quant_bytes, scale_bytes = nf3::scale_bytes;

  template <typename T, int C>
  static void read(const block_planes& at, uint64_t block, int place, simd<T, C> (&out)[1]) {
    const uint8_t* p = at.quants + block * quant_bytes;
    const auto code = gather_codes<C>(
        place, [p](int e) { return nf3::code_of(p, e); }, [p](int e) { return nf3::codes_of_16(p, e); });
    out[0] = dequantized<nf3, T, any_lanes>(code, at.scales + block * scale_bytes);
  }
};

// Whole blocks at once.
struct fp6_reader {
  static constexpr bool reads_half_bits = false;
  static constexpr int per_place = 1, places = 64;
  static constexpr int quant_bytes = fp6::low_bytes, scale_bytes = fp6::scale_bytes;

  template <typename T, int C>
  static void read(const block_planes& at, uint64_t block, int, simd<T, C> (&out)[1]) {
    static_assert(C == places);
    const auto code = fp6::codes_of_block(at.quants + block * fp6::low_bytes, at.top_bits + block * fp6::top_bytes);
    out[0] = dequantized<fp6, T, any_lanes>(convert<code_lane<T, C>>(code), at.scales + block * scale_bytes);
  }
};

// q5_0 and q5_1, which are block arrays.
template <typename Format>
struct q5_reader {
  static constexpr bool reads_half_bits = false;
  static constexpr int places = 32, per_place = 2, quant_bytes = Format::bytes, scale_bytes = 0;

  template <typename T, int C>
  static void read(const block_planes& at, uint64_t block, int place, simd<T, C> (&out)[2]) {
    const uint8_t* bytes = at.quants + block * quant_bytes;
    simd<int32_t, C> code[2];
    Format::template codes<C>(bytes, place, code[0], code[1]);
    ORRERY_UNROLL for (int h = 0; h < 2; ++h) out[h] = Format::template value<T>(code[h], bytes);
  }
};

// The 64 values of a block in the order of its elements, each computed in half.
template <typename Reader>
ORRERY_INLINE inline simd<c10::Half, 64> block_values(const block_planes& at, uint64_t block) {
  constexpr int places = Reader::places;
  simd<c10::Half, places> part[Reader::per_place];
  Reader::template read<c10::Half, places>(at, block, 0, part);
  simd<c10::Half, 64> all;
  for_each_constant<Reader::per_place>([&](auto h) { all.template set_slice<h * places>(part[h]); });
  return all;
}

// The same for neighbouring blocks, into one vector.
template <typename Reader, int N>
ORRERY_INLINE inline void read_blocks(const block_planes& at, uint64_t first_block, simd<c10::Half, N>& values) {
  for_each_constant<N / 64>(
      [&](auto b) ORRERY_INLINE { values.template set_slice<b * 64>(block_values<Reader>(at, first_block + b)); });
}

}  // namespace orrery::formats
