// Rounding after every operation, and loads and stores of half and bfloat16.
#pragma once

#include <bit>
#include <cstring>

#include "instruction_set.h"
#include "register_type.h"

namespace orrery::detail {

template <typename S, int W>
using vector_t = machine::vector<S, W>;

// The bits of one vector as another type.
template <typename To, typename From>
inline To bits_as(const From& from) {
  static_assert(sizeof(To) == sizeof(From));
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

// The result of one operation on bfloat16 values, rounded to bfloat16, ties to even. A NaN here has zeros below the
// upper 16 bits, so rounding keeps it a NaN; its payload becomes canonical at the store. Not testing for NaN saves 16%
// of a q4_0 product.
template <int W>
inline vector_t<float, W> round_to_bfloat16(const vector_t<float, W>& v) {
  using U = vector_t<uint32_t, W>;
  const U bits = bits_as<U>(v);
  const U rounded = (bits + (U(bits >> 16u) & 1u) + 0x7FFFu) & 0xFFFF0000u;
  return bits_as<vector_t<float, W>>(rounded);
}

// The same for any float; every NaN becomes 0x7FC0.
template <int W>
inline vector_t<float, W> round_bfloat16(const vector_t<float, W>& v) {
  const auto nan = machine::broadcast<float, W>(std::bit_cast<float>(0x7FC00000u));
  return machine::choose<float, W>(v != v, nan, round_to_bfloat16<W>(v));
}

// Any register value rounded to T.
template <typename T, int W>
inline vector_t<register_type<T>, W> rounded(const vector_t<register_type<T>, W>& v) {
  if constexpr (!is_widened<T>) {
    return v;
  } else if constexpr (std::is_same_v<T, c10::Half>) {
    return machine::round_half<W>(v);
  } else {
    return round_bfloat16<W>(v);
  }
}

// The result of one operation on values of T, rounded to T.
template <typename T, int W>
inline vector_t<register_type<T>, W> rounded_result(const vector_t<register_type<T>, W>& v) {
  if constexpr (std::is_same_v<T, c10::BFloat16>) {
    return round_to_bfloat16<W>(v);
  } else {
    return rounded<T, W>(v);
  }
}

// One vector from memory, at any alignment, and back.
template <typename T, int W>
inline vector_t<register_type<T>, W> load_vector(const T* p) {
  if constexpr (std::is_same_v<T, c10::BFloat16>) {
    const auto raw = machine::load<uint16_t, W>(reinterpret_cast<const uint16_t*>(p));
    const vector_t<uint32_t, W> wide = machine::convert<uint32_t, uint16_t, W>(raw);
    return bits_as<vector_t<float, W>>(vector_t<uint32_t, W>(wide << 16u));
  } else if constexpr (is_widened<T>) {
    return machine::load<T, W>(p);
  } else {
    return machine::load<register_type<T>, W>(reinterpret_cast<const register_type<T>*>(p));
  }
}
template <typename T, int W>
inline void store_vector(T* p, const vector_t<register_type<T>, W>& v) {
  if constexpr (std::is_same_v<T, c10::BFloat16>) {
    using U = vector_t<uint32_t, W>;
    const U upper = bits_as<U>(v) >> 16u;
    const U bits = machine::choose<uint32_t, W>(v != v, machine::broadcast<uint32_t, W>(0x7FC0u), upper);
    machine::store<uint16_t, W>(reinterpret_cast<uint16_t*>(p), machine::convert<uint16_t, uint32_t, W>(bits));
  } else if constexpr (is_widened<T>) {
    machine::store<T, W>(p, v);
  } else {
    machine::store<register_type<T>, W>(reinterpret_cast<register_type<T>*>(p), v);
  }
}

// Lanes whose bit is set, from memory; the others are 0 and are not read.
template <typename T, int W>
inline vector_t<register_type<T>, W> load_some(const T* p, uint64_t bits) {
  alignas(64) char raw[W * sizeof(T)] = {};
  machine::copy_from_some<T, W>(reinterpret_cast<T*>(raw), p, bits);
  return load_vector<T, W>(reinterpret_cast<const T*>(raw));
}
template <typename T, int W>
inline void store_some(T* p, uint64_t bits, const vector_t<register_type<T>, W>& v) {
  alignas(64) char raw[W * sizeof(T)];
  store_vector<T, W>(reinterpret_cast<T*>(raw), v);
  machine::copy_to_some<T, W>(p, reinterpret_cast<const T*>(raw), bits);
}

}  // namespace orrery::detail
