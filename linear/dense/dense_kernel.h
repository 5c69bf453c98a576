// Kernels that dequantize a weight, row by row or block by block.
#pragma once

#include <algorithm>
#include <cstdint>

#include "formats/dense_readers.h"
#include "linear/launch.h"

namespace orrery {

// Writes the values of C neighbouring places of a block as T. They are computed in `V`.
template <typename Reader, typename V, int C, typename T>
void write_places(const formats::block_planes& at, uint64_t block, int place, T* dense) {
  T* to = dense + block * 64 + place;
  constexpr bool halves = std::is_same_v<V, c10::Half> && std::is_same_v<T, c10::Half>;
  if constexpr (halves && Reader::reads_half_bits) {
    Reader::template half_bits<C>(at, block, place).store(reinterpret_cast<uint16_t*>(to));
  } else {
    simd<V, C> out[Reader::per_place];
    Reader::template read<V, C>(at, block, place, out);
    ORRERY_UNROLL for (int h = 0; h < Reader::per_place; ++h) convert<T>(out[h]).store(to + h * Reader::places);
  }
}

// A work-group writes one row. In each step its work-items take PerItem neighbouring places each. All arithmetic is in
// T.
template <typename Reader, typename T, int SG, int PerItem>
struct dense_row_kernel : small_groups<16> {  // for _1x4, where 128 does not divide the row
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = false;
  static constexpr int dimensions = 1;

  uint64_t state_size = 0;
  uint64_t group_items = 0;
  formats::block_planes planes;  // from the first row that is written
  T* dense = nullptr;

  void bind(const linear_decision& way, const linear_operands& on, sycl::handler&) {
    state_size = on.state_size;
    group_items = way.local[0];
    planes = {on.weight + on.first_block * Reader::quant_bytes,
              on.weight + way.scale_offset + on.first_block * Reader::scale_bytes};
    dense = static_cast<T*>(on.y);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int share = Item::lanes * PerItem;
    constexpr int C = std::min(share, Reader::places);
    const uint64_t places = state_size / 64 * Reader::places;
    const uint64_t first_block = item.group() * (state_size / 64);
    for (uint64_t p = item.local_linear() * PerItem; p < places; p += group_items * PerItem) {
      ORRERY_UNROLL for (int i = 0; i < share; i += C) {
        write_places<Reader, T, C>(planes, first_block + (p + i) / Reader::places,
                                   static_cast<int>((p + i) % Reader::places), dense);
      }
    }
  }
};

// Explicit SIMD: a work-item writes SBS whole blocks. Values are computed in half and converted at the store.
template <weight_format Format, typename Reader, typename T, int SBS>
struct dense_blocks_kernel {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;
  static constexpr int dimensions = 1;

  formats::block_planes planes;
  T* dense = nullptr;

  void bind(const linear_decision&, const linear_operands& on, sycl::handler&) {
    planes = formats::planes_of(Format, on.weight, on.output_size, on.state_size);
    dense = static_cast<T*>(on.y);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t first = item.group() * SBS;
    for (int q = 0; q < SBS; ++q) {
      write_places<Reader, c10::Half, Reader::places>(planes, first + q, 0, dense);
    }
  }
};

}  // namespace orrery
