// simd<T, N>: N values of T, one per work-item (or one per element in explicit-SIMD kernels).
//
// Every operation rounds to T. Half and bfloat16 values live in registers as floats that have been rounded; one float
// operation followed by one rounding is exact for half and is the definition of the operation for bfloat16. Nothing
// here contracts or reorders. simd<T, 1> behaves as the scalar, so a kernel written with these types is plain work-item
// code where the compiler makes the sub-group.
#pragma once

#include "simd/conversion.h"     // IWYU pragma: export
#include "simd/fold.h"           // IWYU pragma: export
#include "simd/mask.h"           // IWYU pragma: export
#include "simd/shared_values.h"  // IWYU pragma: export
#include "simd/shuffle.h"        // IWYU pragma: export
#include "simd/square_root.h"    // IWYU pragma: export
#include "simd/vector.h"         // IWYU pragma: export
// Vectors' own native functions.
#include "native.h"  // IWYU pragma: export
