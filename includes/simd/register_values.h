// In what a register keeps the values of a type.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <type_traits>

namespace orrery {

// The type in which values of T are held and computed.
template <typename T>
struct held {
  using type = T;
};
template <>
struct held<c10::Half> {
  using type = float;
};
template <>
struct held<c10::BFloat16> {
  using type = float;
};
template <typename T>
using held_t = typename held<T>::type;

template <typename T>
constexpr bool is_narrow_float = !std::is_same_v<held_t<T>, T>;

}  // namespace orrery
