// Loads numbers of a block: little-endian, at any alignment.
#pragma once

#include <cstdint>
#include <cstring>

#include "includes/simd.h"

namespace orrery::formats {

template <typename T>
inline T read(const uint8_t* p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

inline float half_at(const uint8_t* p) {
  return simd<c10::Half, 1>::load(reinterpret_cast<const c10::Half*>(p)).register_value(0);
}

}  // namespace orrery::formats
