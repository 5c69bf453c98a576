// The type in which registers keep the values of a type.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>
#include <sycl/sycl.hpp>
#include <type_traits>

// Whether the machine computes in half, which rounds once as the emulation does: the bits are the same.
#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_PORTABLE_VECTORS) && defined(__AVX512FP16__) && \
    defined(__AVX512VBMI__) && defined(__AVX512VNNI__)
#define ORRERY_HALF_ARITHMETIC
#endif

namespace orrery {

namespace detail {

template <typename T>
struct register_type_of {
  using type = T;
};
template <>
struct register_type_of<c10::Half> {
#ifdef ORRERY_HALF_ARITHMETIC
  using type = _Float16;
#else
  using type = float;
#endif
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

// The type in which registers keep values of T, and in which they are computed: float for bfloat16, and for half where
// the machine does not compute in half.
template <typename T>
using register_type = typename detail::register_type_of<T>::type;

template <typename T>
constexpr bool is_narrow_float = std::is_same_v<T, c10::Half> || std::is_same_v<T, c10::BFloat16>;

// Whether every result has to be rounded to T, as registers keep it in a wider type.
template <typename T>
constexpr bool is_widened = sizeof(register_type<T>) > sizeof(T);

}  // namespace orrery
