// Chooses the instruction set of the vectors.
//
// On the host it follows the compiler's target machine (ORRERY_MARCH), in steps that pay off: F16C rounds to half in
// one instruction; AVX-512 has masks for tails, and conversions and permutations for every element size; byte
// permutations and products halve the time of the grid formats; arithmetic in half rounds by itself. In other builds,
// and with ORRERY_PORTABLE_VECTORS, vectors are plain arrays: a device compiler has neither the instructions nor the
// vector types, and ordinary kernels use only simd<T, 1> there.
#pragma once

#include <sycl/sycl.hpp>

#include "register_type.h"

#if !defined(SYCL_EXT_ORRERY_HOST) || defined(ORRERY_PORTABLE_VECTORS)
#define ORRERY_VECTORS portable
#include "portable.h"
#elif defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#ifdef ORRERY_HALF_ARITHMETIC
#define ORRERY_VECTORS avx512_half
#define ORRERY_BYTE_VECTORS avx512_half
#include "avx512_half.h"
#elif defined(__AVX512VBMI__) && defined(__AVX512VNNI__)
#define ORRERY_VECTORS avx512_bytes
#define ORRERY_BYTE_VECTORS avx512_bytes
#include "avx512_bytes.h"
#else
#define ORRERY_VECTORS avx512
#include "avx512.h"
#endif
#elif defined(__AVX2__) && defined(__F16C__)
#define ORRERY_VECTORS avx2
#include "avx2.h"
#else
#define ORRERY_VECTORS portable
#include "portable.h"
#endif

#ifndef ORRERY_BYTE_VECTORS
#define ORRERY_BYTE_VECTORS portable
#endif

#include "compiler.h"

namespace orrery {

using machine = ORRERY_VECTORS;
using byte_machine = ORRERY_BYTE_VECTORS;  // of 64 bytes as one value

}  // namespace orrery

#undef ORRERY_VECTORS
#undef ORRERY_BYTE_VECTORS
