// Lanes chosen, moved, and looked up.
#pragma once

#include "conversion.h"

namespace orrery {

template <typename T, int N>
inline simd<T, N> select(mask<N> m, const simd<T, N>& yes, const simd<T, N>& no) {
  using V = simd<T, N>;
  if (m.every()) return yes;
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = detail::blend<typename V::S, V::W>(m.bits >> (c * V::W), yes.v[c], no.v[c]);
  }
  return r;
}

// Lane i of the result is lane index[i] of `a`; indexes are below N.
template <typename T, int N>
inline simd<T, N> shuffle(const simd<T, N>& a, const simd<int32_t, N>& index) {
  using V = simd<T, N>;
  constexpr bool one_word = sizeof(typename V::S) == 4 && V::W > 1;
  simd<T, N> r;
  if constexpr (one_word && V::chunks == 1) {
    r.v[0] = __builtin_shuffle(a.v[0], index.v[0]);
  } else if constexpr (one_word && V::chunks == 2) {
    ORRERY_UNROLL for (int c = 0; c < 2; ++c) r.v[c] = __builtin_shuffle(a.v[0], a.v[1], index.v[c]);
  } else {
    typename V::S from[N], to[N];
    std::memcpy(from, &a.v, sizeof from);
    for (int i = 0; i < N; ++i) to[i] = from[index[i]];
    std::memcpy(&r.v, to, sizeof to);
  }
  return r;
}

// Even lanes, then odd lanes, of a vector.
template <typename T, int N>
inline std::pair<simd<T, N / 2>, simd<T, N / 2>> split_pairs(const simd<T, N>& a) {
  using V = simd<T, N>;
  using H = simd<T, N / 2>;
  std::pair<H, H> r;
  if constexpr (V::W == H::W && V::W > 1) {
    const auto even = detail::iota<detail::int_like<typename V::S>, V::W>() * 2;
    ORRERY_UNROLL for (int c = 0; c < H::chunks; ++c) {
      r.first.v[c] = __builtin_shuffle(a.v[2 * c], a.v[2 * c + 1], even);
      r.second.v[c] = __builtin_shuffle(a.v[2 * c], a.v[2 * c + 1], even + 1);
    }
  } else {
    for (int i = 0; i < N / 2; ++i) {
      r.first.set(i, a[2 * i]);
      r.second.set(i, a[2 * i + 1]);
    }
  }
  return r;
}

template <typename T, int N>
inline simd<T, 2 * N> join_pairs(const simd<T, N>& even, const simd<T, N>& odd) {
  using V = simd<T, N>;
  simd<T, 2 * N> r;
  if constexpr (V::W == simd<T, 2 * N>::W && V::W > 1) {
    constexpr int W = V::W;
    const auto i = detail::iota<detail::int_like<typename V::S>, W>();
    const auto low = i / 2 + (i & 1) * W;
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      r.v[2 * c] = __builtin_shuffle(even.v[c], odd.v[c], low);
      r.v[2 * c + 1] = __builtin_shuffle(even.v[c], odd.v[c], low + W / 2);
    }
  } else {
    for (int i = 0; i < N; ++i) {
      r.set(2 * i, even[i]);
      r.set(2 * i + 1, odd[i]);
    }
  }
  return r;
}

// table[code & 15], table of 16 values of T. Upper bits of a code are ignored: the register permutation ignores them
// too, so no mask is spent on them.
template <typename T, int N>
inline simd<T, N> lookup16(const simd<T, 16>& table, const simd<uint32_t, N>& code) {
  simd<T, N> r;
  if constexpr (simd<T, 16>::W == 16 && simd<T, N>::W == 16) {
    ORRERY_UNROLL for (int c = 0; c < simd<T, N>::chunks; ++c) r.v[c] = __builtin_shuffle(table.v[0], code.v[c]);
  } else if constexpr (simd<T, 16>::W == 8 && simd<T, N>::W == 8) {
    const auto at = convert<detail::int_like<held_t<T>>>(code);
    ORRERY_UNROLL for (int c = 0; c < simd<T, N>::chunks; ++c) {
      r.v[c] = __builtin_shuffle(table.v[0], table.v[1], at.v[c]);
    }
  } else {
    ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, table[code[i] & 15]);
  }
  return r;
}

}  // namespace orrery
