// Dense weights: every element's value, written out row by row.
#pragma once

#include <algorithm>
#include <cstdint>

#include "formats/dense_readers.h"
#include "linear/dense/launchers.h"
#include "linear/launch.h"
#include "utils.h"

namespace orrery {

// Values of C neighbouring places of a block, as T, to their elements. `V` is the type that they are computed in.
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

template <typename T>
struct dense_arguments {
  uint64_t state_size = 0;
  uint64_t group_items = 0;
  formats::block_planes planes;  // from the first row on that is written
  T* dense = nullptr;
};

// A work-group fills one row. Its work-items take PerItem neighbouring places each, and again one group's share further
// on. All arithmetic is in T.
template <typename Reader, typename T, int SG, int PerItem>
struct dense_row_kernel : dense_arguments<T>, small_groups<16> {  // of _1x4, where 128 does not divide the row
  using reader = Reader;
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = false;

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int share = Item::lanes * PerItem;
    constexpr int C = std::min(share, Reader::places);
    const uint64_t places = this->state_size / 64 * Reader::places;
    const uint64_t first_block = item.group() * (this->state_size / 64);
    for (uint64_t p = item.local_linear() * PerItem; p < places; p += this->group_items * PerItem) {
      ORRERY_UNROLL for (int i = 0; i < share; i += C) {
        write_places<Reader, T, C>(this->planes, first_block + (p + i) / Reader::places,
                                   static_cast<int>((p + i) % Reader::places), this->dense);
      }
    }
  }
};

template <typename Kernel, typename T>
void launch_dense_kernel(const dense_launch& a) {
  using reader = typename Kernel::reader;
  Kernel kernel;
  static_cast<dense_arguments<T>&>(kernel) = {
      a.state_size,
      a.group_items,
      {a.weight + a.first_block * reader::quant_bytes, a.weight + a.scale_offset + a.first_block * reader::scale_bytes},
      static_cast<T*>(a.dense)};
  launch(
      a.device, sycl::nd_range<1>(a.rows * a.group_items, a.group_items), {"linear_xpu_kernel", a.kernel},
      [&](sycl::handler&) { return kernel; }, default_record, a.waits);
}

// The instance for the sub-group size: 32 for the devices that take the wide kernels, 16 for the others.
template <template <typename, int> typename Wide, template <typename, int> typename Narrow>
void launch_dense_rows(c10::ScalarType type, const dense_launch& a) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    if (a.sub_group == 32) {
      launch_dense_kernel<Wide<T, 32>, T>(a);
    } else {
      launch_dense_kernel<Narrow<T, 16>, T>(a);
    }
  });
}

// For a kernel that only the other devices take.
template <template <typename, int> typename Kernel>
void launch_dense_narrow(c10::ScalarType type, const dense_launch& a) {
  with_value_type(type, [&](auto t) { launch_dense_kernel<Kernel<decltype(t), 16>, decltype(t)>(a); });
}

// Explicit SIMD: a work-item writes SBS whole blocks. The values are halves, widened at the store.
template <typename Reader, typename T, int SBS>
struct dense_blocks_kernel {
  static constexpr int sub_group_size = 1;
  static constexpr bool has_barriers = false;

  formats::block_planes planes;
  T* dense;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t first = item.group() * SBS;
    for (int q = 0; q < SBS; ++q) {
      write_places<Reader, c10::Half, Reader::places>(planes, first + q, 0, dense);
    }
  }
};

}  // namespace orrery
