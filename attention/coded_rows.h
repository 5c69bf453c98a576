// Rows of a cache of one byte per element, as the walk over keys reads them.
#pragma once

#include <cstdint>

#include "formats/key_value_code.h"

namespace orrery {

// Contiguous rows of HD bytes.
template <typename Code, int HD>
struct coded_rows {
  using stored = uint8_t;
  const uint8_t* data = nullptr;

  // N elements of a row, from element d on.
  template <int N>
  simd<c10::Half, N> load(uint64_t row, int d = 0) const {
    return Code::template decode<c10::Half, N>(data + row * HD + d);
  }
};
template <int HD>
using coded_keys = coded_rows<formats::key_code, HD>;
template <int HD>
using coded_values = coded_rows<formats::value_code, HD>;

}  // namespace orrery
