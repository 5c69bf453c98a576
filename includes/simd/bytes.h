// 64 bytes as one value: look-ups in tables of bytes, and products of bytes.
#pragma once

#include "barriers.h"
#include "shuffle.h"

namespace orrery {

// Whether the operations below are machine instructions, or loops that only define them.
constexpr bool has_byte_vectors = !std::is_same_v<byte_machine, portable>;

struct bytes64 {
  byte_machine::bytes v;

  // p may have any alignment.
  ORRERY_INLINE static bytes64 load(const void* p) {
    bytes64 r;
    std::memcpy(&r.v, p, sizeof r.v);
    return r;
  }
  // Otherwise the compiler loads the value again at each use.
  ORRERY_INLINE static bytes64 load_once(const void* p) {
    bytes64 r = load(p);
    byte_machine::hold_in_registers(r.v);
    return r;
  }
  // 32 bytes from each of two addresses.
  ORRERY_INLINE static bytes64 load_halves(const uint8_t* first, const uint8_t* second) {
    return {byte_machine::load_halves(first, second)};
  }
  ORRERY_INLINE static bytes64 all(int value) {
    return {byte_machine::broadcast<uint8_t, 64>(static_cast<uint8_t>(value))};
  }
  // The bytes of 16 words.
  template <typename T>
  ORRERY_INLINE static bytes64 of(const simd<T, 16>& words) {
    static_assert(sizeof(T) == 4);
    return {detail::bits_as<byte_machine::bytes>(words.v)};
  }

  ORRERY_INLINE friend bytes64 operator&(const bytes64& a, const bytes64& b) { return {a.v & b.v}; }
  // Shifts 16-bit words; bits cross between the two bytes of a word.
  ORRERY_INLINE friend bytes64 operator>>(const bytes64& a, int n) { return {byte_machine::shift_words_right(a.v, n)}; }
  ORRERY_INLINE friend bytes64 operator<<(const bytes64& a, int n) { return {byte_machine::shift_words_left(a.v, n)}; }
};

namespace detail {

using word_vector = byte_machine::vector<uint32_t, 16>;
using sum_vector = byte_machine::vector<int32_t, 16>;

template <typename T, typename V>
ORRERY_INLINE inline simd<T, 16> words_of(const V& v) {
  simd<T, 16> r;
  std::memcpy(&r.v, &v, sizeof r.v);
  return r;
}

}  // namespace detail

// table[index & 63]
ORRERY_INLINE inline bytes64 lookup_64(const bytes64& table, const bytes64& index) {
  return {byte_machine::lookup_64(table.v, index.v)};
}

// table[index & 127]
ORRERY_INLINE inline bytes64 lookup_128(const uint8_t* table, const bytes64& index) {
  return {byte_machine::lookup_128(bytes64::load(table).v, bytes64::load(table + 64).v, index.v)};
}

// Bytes whose top bit is set.
ORRERY_INLINE inline mask<64> top_bits(const bytes64& a) { return {byte_machine::top_bits(a.v)}; }

// Bytes of `a` that share a bit with those of `b`.
ORRERY_INLINE inline mask<64> common_bits(const bytes64& a, const bytes64& b) {
  return {byte_machine::common_bits(a.v, b.v)};
}

// Bytes of `a` that are not below those of `b`, unsigned.
ORRERY_INLINE inline mask<64> at_least(const bytes64& a, const bytes64& b) {
  return {byte_machine::at_least(a.v, b.v)};
}

ORRERY_INLINE inline bytes64 select(const mask<64>& m, const bytes64& yes, const bytes64& no) {
  return {byte_machine::blend<uint8_t, 64>(m.bits, yes.v, no.v)};
}
ORRERY_INLINE inline bytes64 add_where(const mask<64>& m, const bytes64& a, const bytes64& b) {
  return {byte_machine::add_where(m.bits, a.v, b.v)};
}
ORRERY_INLINE inline bytes64 negate_where(const mask<64>& m, const bytes64& a) {
  return {byte_machine::negate_where(m.bits, a.v)};
}

// Bits of `yes` where those of `bits` are set, of `no` elsewhere.
ORRERY_INLINE inline bytes64 merge_bits(const bytes64& bits, const bytes64& yes, const bytes64& no) {
  return {byte_machine::merge_bits(bits.v, yes.v, no.v)};
}

// table[index]
ORRERY_INLINE inline bytes64 lookup_256(const uint8_t* table, const bytes64& index) {
  return select(top_bits(index), lookup_128(table + 128, index), lookup_128(table, index));
}

// For each lane's 32 bits, the bytes that begin at bits 0, Step, 2 Step and 3 Step.
template <int Step>
ORRERY_INLINE inline bytes64 bytes_at_steps(const simd<uint32_t, 16>& words) {
  return {byte_machine::bytes_at_steps<Step>(detail::bits_as<detail::word_vector>(words.v))};
}

// Eight 16-bit words from each of two addresses, widened.
ORRERY_INLINE inline simd<uint32_t, 16> load_widened_halves(const uint8_t* first, const uint8_t* second) {
  return detail::words_of<uint32_t>(byte_machine::load_widened_halves(first, second));
}

// Adds the four products of each lane's unsigned bytes with the signed ones.
ORRERY_INLINE inline simd<int32_t, 16> dot_bytes(const simd<int32_t, 16>& sum, const bytes64& a, const bytes64& b) {
  return detail::words_of<int32_t>(byte_machine::dot_bytes(detail::bits_as<detail::sum_vector>(sum.v), a.v, b.v));
}

// Two values that are looked up together. 64-byte loads are the bottleneck: if both share the load of a table, a
// product of iq1_s, 4096 x 4096, takes 545 us instead of 662.
struct bytes64_pair {
  bytes64 a, b;
};
struct mask64_pair {
  mask<64> a, b;
};

// table[index & 127] in the lanes of the masks. The others keep their index, so the parts of a larger table can be
// looked up one after another in the same register, without a merge.
ORRERY_INLINE inline bytes64_pair lookup_128(const uint8_t* table, const bytes64_pair& index,
                                             const mask64_pair& where) {
  const bytes64 low = bytes64::load_once(table), high = bytes64::load_once(table + 64);
  return {{byte_machine::lookup_128_where(where.a.bits, low.v, high.v, index.a.v)},
          {byte_machine::lookup_128_where(where.b.bits, low.v, high.v, index.b.v)}};
}

// Which half of a table of 256 entries an index is in.
struct table_halves {
  mask64_pair low, high;

  ORRERY_INLINE explicit table_halves(const bytes64_pair& index)
      : low{!top_bits(index.a), !top_bits(index.b)}, high{top_bits(index.a), top_bits(index.b)} {}
};

// table[index]
ORRERY_INLINE inline bytes64_pair lookup_256(const uint8_t* table, const bytes64_pair& index,
                                             const table_halves& halves) {
  return lookup_128(table + 128, lookup_128(table, index, halves.low), halves.high);
}

}  // namespace orrery
