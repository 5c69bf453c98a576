#include "simd_operations.h"

void simd_test::add_small_integers() {
  add_type<int8_t>();
  add_type<uint8_t>();
}
