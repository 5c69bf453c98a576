// The item that a kernel is generic over. One item stands for Item::lanes work-items: a whole sub-group on the host,
// one work-item if the compiler forms the sub-groups. Values that differ between work-items are simd<T, Item::lanes>.
//
// The members that a kernel may use:
//   lanes                                number of work-items, which have neighbouring local ids
//   group(d), local(d), global(d)        ids in dimension d, of the first lane
//   local_linear()                       linear local id of the first lane
//   barrier()                            work-group barrier; all work-items of a group must reach every one
//   lane<SG>(), sub_group<SG>()          the first lane's index in its sub-group, and the sub-group's index. Which
//                                        work-item is which lane is implementation-defined
//   xor_lane<SG>(value, bits)            another lane's value, if an item is one work-item; and that of the lane
//   lane_above<SG>(value, delta)         `delta` above, unspecified where there is none
//   group_sum(value)                     the group's sum, if an item is one work-item; docs/kernels.md tells its order
//   when_last(f), shared_by_launch<T>(n, f) only under `if constexpr (Item::last_acts_for_group)`
//
// A kernel declares
//   static constexpr int sub_group_size  the required sub-group size; 1 for explicit SIMD
//   static constexpr bool has_barriers   false if its strands synchronize only in a tree_sum at the end
// and, if a group may be no whole number of sub-groups, has the base small_groups<what divides all group sizes>.
#pragma once

#include <concepts>
#include <sycl/sycl.hpp>

#include "simd.h"

namespace orrery {

struct has_small_groups {};
template <int Smallest>
struct small_groups : has_small_groups {
  static constexpr int smallest_group = Smallest;
};

template <typename K>
concept kernel_functor = requires {
  { K::sub_group_size } -> std::convertible_to<int>;
  { K::has_barriers } -> std::convertible_to<bool>;
};

#ifndef SYCL_EXT_ORRERY_HOST
// One work-item on a device whose compiler forms the sub-groups.
template <int D>
class work_item {
 public:
  static constexpr int lanes = 1;
  static constexpr bool last_acts_for_group = false;

  explicit work_item(const sycl::nd_item<D>& at) : at_(at) {}
  size_t group(int d = 0) const { return at_.get_group(d); }
  size_t group_range(int d = 0) const { return at_.get_group_range(d); }
  size_t local(int d = 0) const { return at_.get_local_id(d); }
  size_t local_linear() const { return at_.get_local_linear_id(); }
  size_t global(int d = 0) const { return at_.get_global_id(d); }
  void barrier() const { sycl::group_barrier(at_.get_group()); }
  template <int SG>
  size_t lane() const {
    return at_.get_sub_group().get_local_linear_id();
  }
  template <int SG>
  size_t sub_group() const {
    return at_.get_sub_group().get_group_linear_id();
  }
  template <int SG, typename T>
  T xor_lane(T value, size_t bits) const {
    return sycl::permute_group_by_xor(at_.get_sub_group(), value, static_cast<uint32_t>(bits));
  }
  template <int SG, typename T>
  T lane_above(T value, uint32_t delta) const {
    return sycl::shift_group_left(at_.get_sub_group(), value, delta);
  }
  template <typename T>
  T group_sum(T value) const {
    return sycl::reduce_over_group(at_.get_group(), value, sycl::plus<T>());
  }

 private:
  sycl::nd_item<D> at_;
};
#endif

// The host can also run one strand per work-item, as a GPU does, which tests that kernels are plain work-item code.
#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_HOST_ITEMS_SCALAR)
template <typename Kernel>
constexpr int lanes_of = Kernel::sub_group_size;
#else
template <typename Kernel>
constexpr int lanes_of = 1;
#endif

template <int D, kernel_functor Kernel>
void parallel_for(sycl::handler& h, const sycl::nd_range<D>& range, const Kernel& kernel) {
#ifdef SYCL_EXT_ORRERY_HOST
  if constexpr (std::derived_from<Kernel, has_small_groups>) {
    if constexpr (Kernel::smallest_group < lanes_of<Kernel>) {
      if (range.get_local_range().size() % lanes_of<Kernel> != 0) {
        return h.parallel_for_lanes<Kernel::smallest_group, Kernel::sub_group_size>(range, kernel);
      }
    }
  }
  h.parallel_for_lanes<lanes_of<Kernel>, Kernel::sub_group_size>(range, kernel);
#else
  // Few devices have sub-groups of 1, and explicit-SIMD kernels work with any size.
  if constexpr (Kernel::sub_group_size == 1) {
    h.parallel_for(range, [kernel](sycl::nd_item<D> at) { kernel(work_item<D>(at)); });
  } else {
    h.parallel_for(range, [kernel](sycl::nd_item<D> at)
                              [[sycl::reqd_sub_group_size(Kernel::sub_group_size)]] { kernel(work_item<D>(at)); });
  }
#endif
}

// Sum over the work-items of a group for R rows at once: pairs at distance WG / 2 first, then WG / 4, down to 1, which
// is the halving tree over the group's WG values. `store(row, total)` runs once per row. A kernel calls it last.
template <int WG, int R, typename T, typename Item, int N, typename Store>
void tree_sum(const Item& item, T* partial, const simd<T, N> (&acc)[R], Store store) {
  const size_t l = item.local_linear();
  if constexpr (N == WG) {
    ORRERY_UNROLL for (int r = 0; r < R; ++r) store(r, fold(acc[r]));
  } else if constexpr (N > 1 && Item::last_acts_for_group) {
    ORRERY_UNROLL for (int r = 0; r < R; ++r) acc[r].store(partial + r * WG + l);
    item.when_last(
        [&] { ORRERY_UNROLL for (int r = 0; r < R; ++r) store(r, fold(simd<T, WG>::load(partial + r * WG))); });
  } else {
    static_assert(N == 1);
    for (int r = 0; r < R; ++r) acc[r].store(partial + r * WG + l);
    item.barrier();
    for (size_t s = WG / 2; s >= 1; s /= 2) {
      if (l < s) {
        for (int r = 0; r < R; ++r) {
          T* p = partial + r * WG + l;
          (simd<T, 1>::load(p) + simd<T, 1>::load(p + s)).store(p);
        }
      }
      item.barrier();
    }
    if (l == 0) {
      for (int r = 0; r < R; ++r) store(r, partial[r * WG]);
    }
  }
}

// The same; `finish(totals)` runs once, with the totals of all rows.
template <int WG, int R, typename T, typename Item, int N, typename Finish>
void tree_sums(const Item& item, T* partial, const simd<T, N> (&acc)[R], Finish finish) {
  T totals[R];
  tree_sum<WG, R>(item, partial, acc, [&](int r, T total) {
    totals[r] = total;
    if (r == R - 1) finish(totals);
  });
}

// Every lane of a sub-group of SG combines its value with that of the lane SG / 2 away, then SG / 4, down to 1. The
// operations in use are commutative, so all lanes end with the same value, that of the halving tree.
template <int SG, typename T, typename Item, int N, typename Op>
T butterfly(const Item& item, simd<T, N> v, Op op) {
  if constexpr (N == 1 && Item::lanes == 1) {
    for (int s = SG / 2; s >= 1; s /= 2) v = op(v, simd<T, 1>(item.template xor_lane<SG>(v[0], s)));
    return v[0];
  } else if constexpr (N == 1) {
    return v[0];
  } else {
    return butterfly<SG>(item, op(v.template slice<0, N / 2>(), v.template slice<N / 2, N / 2>()), op);
  }
}
template <int SG, typename T, typename Item, int N>
T butterfly_sum(const Item& item, const simd<T, N>& v) {
  return butterfly<SG>(item, v, [](const auto& a, const auto& b) { return a + b; });
}

// Lane i gets the value of lane i + delta of its sub-group of SG. The last `delta` lanes get an unspecified one.
template <int SG, typename T, typename Item, int N>
simd<T, N> shift_lanes(const Item& item, const simd<T, N>& v, int delta) {
  static_assert(N == 1 || N == SG);
  if constexpr (N == 1) {
    return item.template lane_above<SG>(v[0], static_cast<uint32_t>(delta));
  } else {
    return shift_lanes(v, delta);
  }
}

// Splits a row into GS runs in order, the first `count % GS` of them one longer: work-item i has [begin(i), begin(i +
// 1)).
template <int GS>
struct even_split {
  uint64_t per_item, remainder;
  explicit even_split(uint64_t count) : per_item(count / GS), remainder(count % GS) {}
  uint64_t begin(uint64_t i) const { return i * per_item + (i < remainder ? i : remainder); }
};

// The strands of a work-group run one after another on one host thread, so the last one may act for all.
#if defined(SYCL_EXT_ORRERY_HOST) && !defined(ORRERY_HOST_ITEMS_SCALAR)
constexpr bool last_finishes = true;
#else
constexpr bool last_finishes = false;
#endif

// The only barrier of an explicit-SIMD kernel, and its last step: once all GS work-items have arrived, `finish(i, end)`
// runs for the work-items [i, end), one each on a GPU. The kernel's has_barriers is !last_finishes: 32 stacks and the
// switches between them cost 2 us per group.
template <int GS, typename Item, typename Finish>
void meet_to_finish(const Item& item, Finish finish) {
  if constexpr (last_finishes) {
    item.when_last([&] { finish(0, GS); });
  } else {
    item.barrier();
    const int i = static_cast<int>(item.local_linear());
    finish(i, i + 1);
  }
}

// The body of an explicit-SIMD kernel with barriers between its steps: `steps(begin, end, meet)` runs for the
// work-items [begin, end) of a group of `size`, one each on a GPU. Each step is a loop over them, and meet() is the
// barrier after a step. The kernel's has_barriers is !last_finishes.
template <typename Item, typename Steps>
void in_steps(const Item& item, int size, Steps steps) {
  if constexpr (last_finishes) {
    item.when_last([&] { steps(0, size, [] {}); });
  } else {
    const int i = static_cast<int>(item.local_linear());
    steps(i, i + 1, [&] { item.barrier(); });
  }
}

}  // namespace orrery
