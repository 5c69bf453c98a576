// Rows of a cache of one byte per element, as kernels read keys and values.
#pragma once

#include <cstdint>

#include "formats/key_value_code.h"

namespace orrery {

template <typename Code, int HD>
struct coded_rows {
  using stored = uint8_t;
  const uint8_t* data = nullptr;

  // A row as values of To, which are the same numbers.
  template <typename To>
  simd<To, HD> load(uint64_t row) const {
    return Code::template decode<To, HD>(data + row * HD);
  }
  void prefetch(uint64_t row) const { prefetch_far<HD>(data + row * HD); }
};
template <int HD>
using coded_keys = coded_rows<formats::key_code, HD>;
template <int HD>
using coded_values = coded_rows<formats::value_code, HD>;

}  // namespace orrery
