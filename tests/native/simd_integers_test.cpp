#include "simd_operations.h"

void simd_test::add_large_integers() {
  add_type<int32_t>();
  add_type<uint32_t>();
  add_type<int64_t>();
}
