// The instruction set that vectors are compiled for, and what the compiler is told about them.
#pragma once

#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#define ORRERY_LANE_MASKS 1  // mask registers for every element size and vector length
#endif
#if defined(__AVX512F__) || defined(__F16C__)
#include <immintrin.h>
#endif

namespace orrery {

#define ORRERY_UNROLL _Pragma("GCC unroll 64")
// For the bodies of kernels, whose values are registers: a call would put them into memory. And for whatever only
// prefetches: GCC takes such a function for one without effect and drops the calls.
#define ORRERY_INLINE __attribute__((always_inline))

namespace detail {

#if defined(__AVX512F__)
constexpr int vector_bytes = 64;
#elif defined(__AVX__)
constexpr int vector_bytes = 32;
#else
constexpr int vector_bytes = 16;
#endif

}  // namespace detail

}  // namespace orrery
