// One vector of the machine.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "instruction_set.h"

namespace orrery {

namespace detail {

template <typename S, int W>
struct vector_of {
  typedef S type __attribute__((vector_size(W * sizeof(S))));
};
template <typename S>
struct vector_of<S, 1> {
  using type = S;
};
template <typename S, int W>
using vector_t = typename vector_of<S, W>::type;

// Lanes of one machine vector: the largest power of two that divides N and fits. GCC takes wider ones apart lane by
// lane, and compiles a unit four to ten times as long.
template <typename S, int N>
constexpr int chunk_lanes() {
  int w = N & -N;
  while (w * int(sizeof(S)) > vector_bytes) w /= 2;
  return w;
}

template <typename S>
using int_like = std::conditional_t<
    sizeof(S) == 8, int64_t,
    std::conditional_t<sizeof(S) == 4, int32_t, std::conditional_t<sizeof(S) == 2, int16_t, int8_t>>>;

template <typename S, int W, size_t... I>
inline vector_t<S, W> iota_vector(std::index_sequence<I...>) {
  if constexpr (W == 1) {
    return S(0);
  } else {
    return vector_t<S, W>{S(I)...};
  }
}

template <typename S, int W>
inline vector_t<S, W> iota() {
  return iota_vector<S, W>(std::make_index_sequence<W>());
}

}  // namespace detail

}  // namespace orrery
