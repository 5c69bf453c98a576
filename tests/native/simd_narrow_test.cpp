#include "simd_operations.h"

void simd_test::add_narrow_types() {
  add_type<c10::Half>();
  add_type<c10::BFloat16>();
}
