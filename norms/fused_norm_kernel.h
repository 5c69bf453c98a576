// Normalization of rows, one work-group a row, whose elements stay in its registers.
#pragma once

#include <cstdint>
#include <type_traits>

#include "includes/codes.h"
#include "includes/item.h"
#include "norms/fused_norm.h"
#include "utils.h"

namespace orrery {

// The type of sums and statistics over values of T.
template <typename T>
using sum_type = std::conditional_t<is_narrow_float<T>, float, T>;

// Sum and sum of squares; without the sum if there is one moment.
template <typename A, int N, bool one_moment>
struct moments {
  simd<A, N> sum, squares;

  // A lane's elements are `M / N` neighbours, added in their order.
  template <int M>
  ORRERY_INLINE void add(const simd<A, M>& x) {
    constexpr int V = M / N;
    simd<A, N> element[V];
    split<V, 0, 1>(x, element);
    ORRERY_UNROLL for (int k = 0; k < V; ++k) {
      if constexpr (!one_moment) sum += element[k];
      squares += element[k] * element[k];
    }
  }

 private:
  // Element k of every lane.
  template <int Count, int First, int Step, int M, int V>
  ORRERY_INLINE static void split(const simd<A, M>& x, simd<A, N> (&element)[V]) {
    if constexpr (Count == 1) {
      element[First] = x;
    } else {
      const auto [even, odd] = split_pairs(x);
      split<Count / 2, First, 2 * Step>(even, element);
      split<Count / 2, First + Step, 2 * Step>(odd, element);
    }
  }
};

// The input plus the residuals that are given, normalized, times the weight, plus the bias. Sums and statistics are
// in float, and in double for double. A work-item takes vec_size neighbouring elements in a pass.
//
// With one moment the squares are added up by the group's sum (docs/kernels.md). With two, neighbouring lanes are
// added first, then neighbouring pairs, and so on; and the sub-groups' sums in the same way.
template <typename scalar_t, typename mean_t, typename weight_t, typename index_t, int vec_size, bool one_moment>
struct fused_norm_kernel1 : small_groups<1> {
  static_assert(std::is_same_v<scalar_t, mean_t> && std::is_same_v<scalar_t, weight_t>);
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = lanes_of<fused_norm_kernel1> == 1;
  static constexpr int part = 32;
  static constexpr int passes = norm_elements_per_item<scalar_t> / vec_size;
  using A = sum_type<scalar_t>;

  uint32_t row_length;
  uint64_t work_group;
  const scalar_t *input, *add1, *add2;
  uint64_t sub_groups;                               // whole ones; 0 in a group that is smaller than one
  sycl::local_accessor<A> local_sum, local_squares;  // an element a sub-group; with one moment only one in all
  float eps;
  const weight_t *weight, *bias;
  scalar_t* output;

  template <typename Item>
  void operator()(const Item& item) const {
    if constexpr (Item::lanes == sub_group_size) {
      item.when_last([&] { whole_row(item.group()); });
    } else {
      one_item(item);
    }
  }

 private:
  template <int N>
  using sums = moments<A, N, one_moment>;
  struct statistics {
    A mean = 0, r = 0;  // r is one over the deviation, or over the root mean square
  };

  index_t offset(uint64_t row) const { return static_cast<index_t>(row) * static_cast<index_t>(row_length); }
  int64_t column(int pass, uint64_t tid) const { return (pass * work_group + tid) * vec_size; }

  // M elements of the row from column `at` on, those beyond its end 0. Longer vectors than two registers are put
  // together from parts: the compiler would not keep them in registers.
  template <int M>
  ORRERY_INLINE simd<A, M> elements(index_t row, int64_t at) const {
    if constexpr (M > part) {
      simd<A, M> all;
      for_each_constant<M / part>(
          [&](auto i) ORRERY_INLINE { all.template set_slice<i * part, part>(elements<part>(row, at + i * part)); });
      return all;
    } else {
      using V = simd<scalar_t, M>;
      const auto live = mask<M>::first(row_length - at);
      const auto load = [&](const scalar_t* from) ORRERY_INLINE { return V::load(from + row + at, live); };
      if (add1 == nullptr) return convert<A>(load(input));
      if (add2 == nullptr) return convert<A>(load(input) + load(add1));
      return convert<A>(load(input) + (load(add1) + load(add2)));
    }
  }

  template <int M>
  ORRERY_INLINE void store(index_t row, int64_t at, simd<A, M> y, const statistics& s) const {
    using V = simd<A, M>;
    const auto live = mask<M>::first(row_length - at);
    if constexpr (!one_moment) y -= V(s.mean);
    y = V(s.r) * y;
    if (weight != nullptr) y *= convert<A>(simd<weight_t, M>::load(weight + at, live));
    if (bias != nullptr) y += convert<A>(simd<weight_t, M>::load(bias + at, live));
    convert<scalar_t>(y).store(output + row + at, live);
  }

  static A reciprocal_root(A x) {
    if constexpr (std::is_same_v<A, double>) {
      return sycl::rsqrt(x);
    } else {
      return native::rsqrt(x);
    }
  }
  statistics of_totals(A sum, A squares) const {
    using F = simd<A, 1>;
    const F count(static_cast<float>(row_length)), e(eps);
    if constexpr (one_moment) {
      const F mean_square = F(squares) / count + e;
      return {0, reciprocal_root(squares < 0 ? 0 : mean_square[0])};
    } else {
      const F variance = (F(squares) - F(sum) * F(sum) / count) / count;
      return {(F(sum) / count)[0], reciprocal_root(variance[0] < 0 ? 0 : (variance + e)[0])};
    }
  }

  // Adds to each lane those above it, until lane 0 has the sum of as many as `limit` demands: twice the last shift.
  template <typename Item, int N>
  static void add_lanes_above(const Item& item, sums<N>& of, uint64_t limit = sub_group_size / 2) {
    for (int shift = 1; shift < sub_group_size; shift *= 2) {
      of.sum += shift_lanes<sub_group_size>(item, of.sum, shift);
      of.squares += shift_lanes<sub_group_size>(item, of.squares, shift);
      if (uint64_t(shift) >= limit) break;
    }
  }

  // Lane l takes the totals of the sub-groups l, l + 32, ...
  template <typename Item, int N>
  sums<N> sum_of_sub_groups(const Item& item, uint64_t lane) const {
    sums<N> all;
    for (uint64_t s = lane; s < sub_groups; s += sub_group_size) {
      const auto live = mask<N>::first(sub_groups - s);
      all.sum += simd<A, N>::load(&local_sum[s], live);
      all.squares += simd<A, N>::load(&local_squares[s], live);
    }
    add_lanes_above(item, all, (sub_groups + 1) / 2);
    return all;
  }

  // ---- One work-item ----

  template <typename Item>
  void one_item(const Item& item) const {
    const uint64_t lane = item.template lane<sub_group_size>(), sub_group = item.template sub_group<sub_group_size>();
    // Sub-groups add by lanes, the group's sum by local ids; a device may number them differently.
    const uint64_t tid = one_moment ? item.local_linear() : sub_group * sub_group_size + lane;
    const index_t row = offset(item.group());
    simd<A, vec_size> mine[passes];
    sums<1> own;
    for (int i = 0; i < passes && column(i, tid) < row_length; ++i) {
      mine[i] = elements<vec_size>(row, column(i, tid));
      own.add(mine[i]);
    }
    const statistics s = shared_statistics(item, own, tid == 0, sub_group, lane);
    for (int i = 0; i < passes && column(i, tid) < row_length; ++i) store(row, column(i, tid), mine[i], s);
  }

  template <typename Item>
  statistics shared_statistics(const Item& item, sums<1>& own, bool first, uint64_t sub_group, uint64_t lane) const {
    if constexpr (one_moment) {
      const A total = item.group_sum(own.squares[0]);
      if (first) local_squares[0] = of_totals(0, total).r;
      item.barrier();
      return {0, local_squares[0]};
    } else {
      if (sub_groups == 0) return of_totals(0, 0);
      add_lanes_above(item, own);
      if (sub_groups > 1) {
        if (lane == 0 && sub_group < sub_groups) {
          local_sum[sub_group] = own.sum[0];
          local_squares[sub_group] = own.squares[0];
        }
        item.barrier();
        if (sub_group == 0) own = sum_of_sub_groups<Item, 1>(item, lane);
      }
      if (first) {
        const statistics s = of_totals(own.sum[0], own.squares[0]);
        local_sum[0] = s.mean;
        local_squares[0] = s.r;
      }
      item.barrier();
      return {local_sum[0], local_squares[0]};
    }
  }

  // ---- On the host: a whole row by the last strand, so that its sums stay in registers ----

  void whole_row(uint64_t group) const {
    const index_t row = offset(group);
    const statistics s = row_statistics(row);
    for (int64_t at = 0; at < row_length; at += part) store(row, at, elements<part>(row, at), s);
  }

  statistics row_statistics(index_t row) const {
    if constexpr (one_moment) {
      simd<A, sub_group_size> total;
      for (uint64_t tid = 0; tid < work_group; tid += sub_group_size) total += sub_group_sums(row, tid).squares;
      return of_totals(0, fold(total));
    } else {
      totals_of_sub_groups(row);
      if (sub_groups == 1) return of_totals(local_sum[0], local_squares[0]);
      const auto all = sum_of_sub_groups<whole_sub_group, sub_group_size>({}, 0);
      return of_totals(all.sum[0], all.squares[0]);
    }
  }

  ORRERY_INLINE sums<sub_group_size> sub_group_sums(index_t row, uint64_t tid) const {
    sums<sub_group_size> own;
    for (int i = 0; i < passes && column(i, tid) < row_length; ++i) {
      own.add(elements<sub_group_size * vec_size>(row, column(i, tid)));
    }
    return own;
  }

  // Sixteen trees together take a fifth of the shuffles of one after the other.
  void totals_of_sub_groups(index_t row) const {
    constexpr int together = sub_group_size / 2;
    for (uint64_t first = 0; first < sub_groups; first += together) {
      const int64_t left = sub_groups - first;
      simd<A, sub_group_size> sum[together], squares[together];
      for (int i = 0; i < together && i < left; ++i) {
        const auto own = sub_group_sums(row, (first + i) * sub_group_size);
        sum[i] = own.sum;
        squares[i] = own.squares;
      }
      const auto live = mask<together>::first(left);
      fold_neighbours_each(sum).store(&local_sum[first], live);
      fold_neighbours_each(squares).store(&local_squares[first], live);
    }
  }

  struct whole_sub_group {};  // the item of shift_lanes
};

template <typename T, typename index_t, int vec_size, bool one_moment>
void launch_norm_instance(c10::Device device, const norm_plan& plan, const norm_operands& on) {
  using kernel = fused_norm_kernel1<T, T, T, index_t, vec_size, one_moment>;
  const auto elements = [](const void* p) { return static_cast<const T*>(p); };
  const uint64_t sub_groups = plan.work_group / kernel::sub_group_size;
  launch(device, sycl::nd_range<1>({on.rows * plan.work_group}, {plan.work_group}),
         {"add_norm_fusion", "fused_norm_kernel1"}, [&](sycl::handler& h) {
           using accessor = sycl::local_accessor<sum_type<T>>;
           const accessor sum(sycl::range<1>(one_moment ? 0 : sub_groups), h);
           const accessor squares(sycl::range<1>(one_moment ? 1 : sub_groups), h);
           kernel k{};
           k.row_length = on.row_length;
           k.work_group = plan.work_group;
           k.input = elements(on.input);
           k.add1 = elements(on.add1);
           k.add2 = elements(on.add2);
           k.sub_groups = sub_groups;
           k.local_sum = sum;
           k.local_squares = squares;
           k.eps = on.eps;
           k.weight = elements(on.weight);
           k.bias = elements(on.bias);
           k.output = static_cast<T*>(on.output);
           return k;
         });
}

template <typename T, int vec_size>
void launch_norm_of_vector(c10::Device device, const norm_plan& plan, const norm_operands& on) {
  if (plan.vec_size < vec_size) {
    if constexpr (vec_size > 1) return launch_norm_of_vector<T, vec_size / 2>(device, plan, on);
  }
  using wide = unsigned long long;
  if (plan.one_moment) {
    plan.wide_index ? launch_norm_instance<T, wide, vec_size, true>(device, plan, on)
                    : launch_norm_instance<T, unsigned, vec_size, true>(device, plan, on);
  } else {
    plan.wide_index ? launch_norm_instance<T, wide, vec_size, false>(device, plan, on)
                    : launch_norm_instance<T, unsigned, vec_size, false>(device, plan, on);
  }
}

template <typename T>
void launch_fused_norm(c10::Device device, const norm_plan& plan, const norm_operands& on) {
  launch_norm_of_vector<T, norm_widest_vector<T>>(device, plan, on);
}

}  // namespace orrery
