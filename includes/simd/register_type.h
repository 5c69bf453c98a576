// The type in which registers keep the values of a type.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>
#include <type_traits>

namespace orrery {

namespace detail {

template <typename T>
struct register_type_of {
  using type = T;
};
template <>
struct register_type_of<c10::Half> {
  using type = float;
};
template <>
struct register_type_of<c10::BFloat16> {
  using type = float;
};

// The signed integer of the same size.
template <typename S>
using int_like = std::conditional_t<
    sizeof(S) == 8, int64_t,
    std::conditional_t<sizeof(S) == 4, int32_t, std::conditional_t<sizeof(S) == 2, int16_t, int8_t>>>;

}  // namespace detail

// The type in which registers keep values of T, and in which they are computed: float for half and bfloat16.
template <typename T>
using register_type = typename detail::register_type_of<T>::type;

template <typename T>
constexpr bool is_narrow_float = !std::is_same_v<register_type<T>, T>;

}  // namespace orrery
