// simd<T, N>: N values of T, one per work-item (or one per element in explicit-SIMD kernels).
//
// Every operation rounds to T. Half and bfloat16 values are kept in registers as rounded floats; a float operation
// followed by one rounding is correctly rounded for half and is the definition of the operation for bfloat16. Where the
// machine computes in half, registers keep halves, and the bits are the same. Nothing
// here contracts or reorders. simd<T, 1> behaves like a scalar, so a kernel written with these types is plain work-item
// code if the compiler forms the sub-groups.
#pragma once

// IWYU pragma: begin_exports
#include "native.h"
#include "simd/barriers.h"
#include "simd/bytes.h"
#include "simd/conversion.h"
#include "simd/fold.h"
#include "simd/mask.h"
#include "simd/pairs.h"
#include "simd/shuffle.h"
#include "simd/square_root.h"
#include "simd/vector.h"
#include "simd/words.h"
// IWYU pragma: end_exports
