// Asking for memory ahead of its use.
#pragma once

#include "includes/simd.h"

namespace orrery {

// `Bytes` bytes into the second level of the cache, for a use some thousand cycles later; the address may lie anywhere.
// The first level is left to what is in use: filled with a whole group's next weights it loses the inputs.
template <int Bytes>
ORRERY_INLINE inline void prefetch_far([[maybe_unused]] const void* p) {
#ifdef __GNUC__
  ORRERY_UNROLL for (int i = 0; i < Bytes; i += 64) __builtin_prefetch(static_cast<const char*>(p) + i, 0, 2);
#endif
}

}  // namespace orrery
