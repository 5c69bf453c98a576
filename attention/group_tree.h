// Sums of vectors over the work-items of a group, by the halving tree.
#pragma once

#include <cstdint>

#include "includes/item.h"

namespace orrery {

constexpr int tree_group = 32;  // work-items of a group

// The vectors of tree_group work-items, HD elements of T each, in memory. A GPU keeps a column for each work-item, and
// each work-item folds a few rows. The host goes through the work-items in order: the second half of them is added to
// the first as it comes, then eight vectors to eight, and so on; columns would take 4096 stores of one float.
template <typename T, int HD>
struct group_tree {
  static constexpr int half = tree_group / 2;
  static constexpr size_t elements = HD * (last_finishes ? half : tree_group);

  // Work-items must come in order on the host.
  static void put(T* memory, uint64_t item, const simd<T, HD>& v) {
    if constexpr (last_finishes) {
      T* row = memory + item % half * HD;
      (item < half ? v : simd<T, HD>::load(row) + v).store(row);
    } else {
      v.store_strided(memory + item, tree_group);
    }
  }

  // Calls store(d, sums d, d + 1, ...) for the part of the work-items [begin, end).
  template <typename Store>
  static void fold(const T* memory, int begin, int end, Store store) {
    if constexpr (last_finishes) {
      constexpr int W = 16;
      for (int d = 0; d < HD; d += W) {
        simd<T, W> v[half];
        ORRERY_UNROLL for (int k = 0; k < half; ++k) v[k] = simd<T, W>::load(memory + k * HD + d);
        ORRERY_UNROLL for (int h = half / 2; h >= 1; h /= 2) {
          ORRERY_UNROLL for (int k = 0; k < h; ++k) v[k] += v[k + h];
        }
        store(d, v[0]);
      }
    } else {
      for (int d = begin * (HD / tree_group); d < end * (HD / tree_group); ++d) {
        store(d, simd<T, 1>(orrery::fold(simd<T, tree_group>::load(memory + d * tree_group))));
      }
    }
  }
};

}  // namespace orrery
