// Optimization barriers that keep a value in registers or in memory. They do nothing except on the host.
#pragma once

#include "vector.h"

namespace orrery {

// Keeps a loaded value in registers. Otherwise the compiler loads it again at each use, and kernels with few operations
// per byte are limited by loads.
template <typename T, int N>
ORRERY_INLINE inline simd<T, N> hold_in_registers(simd<T, N> a) {
  ORRERY_UNROLL for (int c = 0; c < a.chunks; ++c) machine::hold_in_registers(a.v[c]);
  return a;
}

// Keeps numbers in memory: a vector operation broadcasts a number from memory for free; from a register it takes a
// shuffle.
template <size_t Count>
ORRERY_INLINE inline void hold_in_memory(float (&numbers)[Count]) {
  machine::hold_in_memory(numbers);
}

// Hides a table's address from the compiler, which otherwise copies the table to the stack before a loop.
template <typename Table>
ORRERY_INLINE inline const Table& hide_address(const Table& table) {
#ifdef SYCL_EXT_ORRERY_HOST
  const Table* p = &table;
  asm volatile("" : "+r"(p));
  return *p;
#else
  return table;
#endif
}

}  // namespace orrery
