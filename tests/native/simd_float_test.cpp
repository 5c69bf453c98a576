#include "simd_operations.h"

void simd_test::add_float_types() {
  add_type<float>();
  add_type<double>();
}
