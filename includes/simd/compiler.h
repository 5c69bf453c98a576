// What the compiler is told about loops and functions.
#pragma once

#ifdef __clang__
#define ORRERY_UNROLL _Pragma("unroll 64")
#else
#define ORRERY_UNROLL _Pragma("GCC unroll 64")
#endif
// For the bodies of kernels, whose values are registers: a call would put them into memory. And for whatever only
// prefetches: GCC takes such a function for one without effect and drops the calls.
#define ORRERY_INLINE __attribute__((always_inline))
