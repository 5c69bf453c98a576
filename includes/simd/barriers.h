// Where a value lives: barriers to a compiler that knows better. They change nothing off the host.
#pragma once

#include "vector.h"

namespace orrery {

// A value that is loaded once and stays in registers: left alone, the compiler reads the memory again at each use, and
// loads are what a kernel of few operations per byte runs out of.
template <typename T, int N>
ORRERY_INLINE inline simd<T, N> hold_in_registers(simd<T, N> a) {
  ORRERY_UNROLL for (int c = 0; c < a.chunks; ++c) machine::hold_in_registers(a.v[c]);
  return a;
}

// Numbers that are read back from memory: a vector operation spreads a number there over all lanes for nothing, one in
// a register takes a shuffle.
template <size_t Count>
ORRERY_INLINE inline void hold_in_memory(float (&numbers)[Count]) {
  machine::hold_in_memory(numbers);
}

// A table whose address the compiler does not know, or else it copies the table to the stack before a loop.
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
