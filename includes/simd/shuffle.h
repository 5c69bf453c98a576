// Selects, shuffles and table look-ups.
#pragma once

#include <utility>

#include "conversion.h"

namespace orrery {

template <typename T, int N>
inline simd<T, N> select(mask<N> m, const simd<T, N>& yes, const simd<T, N>& no) {
  using V = simd<T, N>;
  if (m.every()) return yes;
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = machine::blend<typename V::S, V::W>(m.bits >> (c * V::W), yes.v[c], no.v[c]);
  }
  return r;
}

// Lanes of `yes` where a < b, of `no` elsewhere, without a mask.
template <typename T, int N>
inline simd<T, N> select_less(const simd<T, N>& a, const simd<T, N>& b, const simd<T, N>& yes, const simd<T, N>& no) {
  using V = simd<T, N>;
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = machine::choose<typename V::S, V::W>(a.v[c] < b.v[c], yes.v[c], no.v[c]);
  }
  return r;
}

// Lanes of `yes` where `bits` is not 0, of `no` elsewhere.
template <typename T, int N, typename I>
inline simd<T, N> select_bits(const simd<I, N>& bits, const simd<T, N>& yes, const simd<T, N>& no) {
  using V = simd<T, N>;
  static_assert(sizeof(I) == sizeof(typename V::S));
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = machine::choose<typename V::S, V::W>(bits.v[c] != typename simd<I, N>::chunk{}, yes.v[c], no.v[c]);
  }
  return r;
}

// Lane i of the result is lane index[i] of `a`; indexes must be below N. They are integers of the lane's size, 32 bits
// for half and bfloat16.
template <typename T, int N, typename I>
inline simd<T, N> shuffle(const simd<T, N>& a, const simd<I, N>& index) {
  using V = simd<T, N>;
  using S = typename V::S;
  constexpr bool one_vector = machine::permutes<S, V::W> && sizeof(I) == sizeof(S);
  [[maybe_unused]] const auto at = [&](auto c) {
    return detail::bits_as<machine::vector<detail::int_like<S>, V::W>>(index.v[c]);
  };
  simd<T, N> r;
  if constexpr (one_vector && V::chunks == 1) {
    r.v[0] = machine::permute<S, V::W>(a.v[0], at(0));
  } else if constexpr (one_vector && V::chunks == 2) {
    ORRERY_UNROLL for (int c = 0; c < 2; ++c) r.v[c] = machine::permute2<S, V::W>(a.v[0], a.v[1], at(c));
  } else {
    S from[N], to[N];
    std::memcpy(from, &a.v, sizeof from);
    for (int i = 0; i < N; ++i) to[i] = from[index[i]];
    std::memcpy(&r.v, to, sizeof to);
  }
  return r;
}

// Lane i of the result is lane i + delta of `a`, or an unspecified one of them if there is no such lane. N is a power
// of two.
template <typename T, int N>
inline simd<T, N> shift_lanes(const simd<T, N>& a, int delta) {
  using I = detail::int_like<typename simd<T, N>::S>;
  return shuffle(a, (simd<I, N>::iota() + simd<I, N>(I(delta))) & simd<I, N>(I(N - 1)));
}

// The even lanes and the odd lanes of a vector.
template <typename T, int N>
ORRERY_INLINE inline std::pair<simd<T, N / 2>, simd<T, N / 2>> split_pairs(const simd<T, N>& a) {
  using V = simd<T, N>;
  using H = simd<T, N / 2>;
  using S = typename V::S;
  std::pair<H, H> r;
  if constexpr (V::W == H::W && V::W > 1) {
    using I = detail::int_like<S>;
    const auto even = machine::iota<I, V::W>() * I(2);
    ORRERY_UNROLL for (int c = 0; c < H::chunks; ++c) {
      r.first.v[c] = machine::permute2<S, V::W>(a.v[2 * c], a.v[2 * c + 1], even);
      r.second.v[c] = machine::permute2<S, V::W>(a.v[2 * c], a.v[2 * c + 1], even + I(1));
    }
  } else if constexpr (V::W == N && H::W == N / 2 && machine::permutes<S, N>) {
    using I = detail::int_like<S>;
    const auto lane = machine::iota<I, N>();
    const auto apart = machine::permute<S, N>(a.v[0], lane * I(2) - lane / I(N / 2) * I(N - 1));
    r.first.v[0] = machine::part<S, N, 0, N / 2>(apart);
    r.second.v[0] = machine::part<S, N, N / 2, N / 2>(apart);
  } else {
    for (int i = 0; i < N / 2; ++i) {
      r.first.set(i, a[2 * i]);
      r.second.set(i, a[2 * i + 1]);
    }
  }
  return r;
}

template <typename T, int N>
ORRERY_INLINE inline simd<T, 2 * N> join_pairs(const simd<T, N>& even, const simd<T, N>& odd) {
  using V = simd<T, N>;
  using S = typename V::S;
  simd<T, 2 * N> r;
  if constexpr (V::W == simd<T, 2 * N>::W && V::W > 1) {
    constexpr int W = V::W;
    using I = detail::int_like<S>;
    const auto i = machine::iota<I, W>();
    const auto low = i / I(2) + (i & I(1)) * I(W);
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      r.v[2 * c] = machine::permute2<S, W>(even.v[c], odd.v[c], low);
      r.v[2 * c + 1] = machine::permute2<S, W>(even.v[c], odd.v[c], low + I(W / 2));
    }
  } else if constexpr (simd<T, 2 * N>::W == 2 * N && V::W == N && machine::permutes<S, 2 * N>) {
    constexpr int W = 2 * N;
    using I = detail::int_like<S>;
    const auto i = machine::iota<I, W>();
    r.v[0] = machine::permute2<S, W>(machine::widen<S, N, W>(even.v[0]), machine::widen<S, N, W>(odd.v[0]),
                                     i / I(2) + (i & I(1)) * I(W));
  } else {
    for (int i = 0; i < N; ++i) {
      r.set(2 * i, even[i]);
      r.set(2 * i + 1, odd[i]);
    }
  }
  return r;
}

// Entries of a table in a register, by the type of the codes that look it up.
template <typename Code>
constexpr int table_size = sizeof(Code) == 2 ? 32 : 16;

// table[code & 15]. Register permutations ignore the upper bits of an index, so no mask is needed.
template <typename T, int N>
inline simd<T, N> lookup(const simd<T, 16>& table, const simd<uint32_t, N>& code) {
  using V = simd<T, N>;
  using S = typename V::S;
  using I = detail::int_like<S>;
  constexpr int table_width = simd<T, 16>::W;
  simd<T, N> r;
  if constexpr (sizeof(S) == 2 && machine::permutes<S, 16> && N % 16 == 0) {
    ORRERY_UNROLL for (int i = 0; i < N / 16; ++i) {
      const auto at = machine::convert<uint16_t, uint32_t, 16>(code.v[i]);
      const auto values = machine::permute<S, 16>(table.v[0], detail::bits_as<machine::vector<I, 16>>(at));
      std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof values, &values, sizeof values);
    }
  } else if constexpr (machine::permutes<S, 16> && table_width == 16 && V::W == 16) {
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      r.v[c] = machine::permute<S, 16>(table.v[0], detail::bits_as<machine::vector<I, 16>>(code.v[c]));
    }
  } else if constexpr (table_width == 8 && V::W == 8) {
    const auto at = convert<I>(code);
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      r.v[c] = machine::permute2<S, 8>(table.v[0], table.v[1], at.v[c]);
    }
  } else {
    ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, table[code[i] & 15]);
  }
  return r;
}

// table[code & 31], for values of 16 bits.
template <typename T, int N>
inline simd<T, N> lookup(const simd<T, 32>& table, const simd<uint16_t, N>& code) {
  using V = simd<T, N>;
  using S = typename V::S;
  using I = detail::int_like<S>;
  static_assert(sizeof(S) == 2 && V::W == 32);
  simd<T, N> r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = machine::permute<S, 32>(table.v[0], detail::bits_as<machine::vector<I, 32>>(code.v[c]));
  }
  return r;
}

// Whether lookup_upper_words is one instruction.
template <int N>
constexpr bool has_upper_word_lookup = machine::looks_up_words<simd<uint32_t, N>::W>;

// The float whose upper half is table[code], for the code of Bits bits at bit 16 of each lane. The table has 32 entries
// at a multiple of 64 bytes, among which shorter codes repeat, and 64 for codes of six bits. The lower half of a float
// is 0.
template <int Bits, int N>
ORRERY_INLINE inline simd<float, N> lookup_upper_words(const uint16_t* table, const simd<uint32_t, N>& words) {
  using U = simd<uint32_t, N>;
  simd<float, N> r;
  ORRERY_UNROLL for (int c = 0; c < U::chunks; ++c) {
    r.v[c] = machine::lookup_upper_words<Bits, U::W>(table, words.v[c]);
  }
  return r;
}

// Whether lookup_bytes is a few instructions.
template <int N>
constexpr bool has_byte_lookup = machine::looks_up_bytes<simd<uint32_t, N>::W>;

// The float whose upper bytes are top[code] and second[code], for the low six bits of byte k of each lane. Both tables
// have 64 entries at multiples of 64 bytes.
template <int N>
ORRERY_INLINE inline simd<float, N> lookup_bytes(const uint8_t* top, const uint8_t* second,
                                                 const simd<uint32_t, N>& words, int k) {
  using U = simd<uint32_t, N>;
  simd<float, N> r;
  ORRERY_UNROLL for (int c = 0; c < U::chunks; ++c) {
    r.v[c] = machine::lookup_bytes<U::W>(top, second, words.v[c], k);
  }
  return r;
}

// The float whose upper bytes are top[code] and second[code], for the low seven bits of byte k of each lane, negative
// if that byte's top bit is set. Both tables have 128 entries at multiples of 64 bytes.
template <int N>
inline simd<float, N> lookup_signed(const uint8_t* top, const uint8_t* second, const simd<uint32_t, N>& words, int k) {
  using U = simd<uint32_t, N>;
  simd<float, N> r;
  ORRERY_UNROLL for (int c = 0; c < U::chunks; ++c) {
    r.v[c] = machine::lookup_signed<U::W>(top, second, words.v[c], k);
  }
  return r;
}

}  // namespace orrery
