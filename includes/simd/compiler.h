// Compiler attributes for loops and functions.
#pragma once

#ifdef __clang__
#define ORRERY_UNROLL _Pragma("unroll 64")
#else
#define ORRERY_UNROLL _Pragma("GCC unroll 64")
#endif
// For the bodies of kernels, whose values would be spilled to memory by a call. And for functions that only prefetch:
// GCC regards them as without effect and drops the calls.
#define ORRERY_INLINE __attribute__((always_inline))
