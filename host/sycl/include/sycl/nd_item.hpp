// Work-items. sycl::nd_item is the standard's; lane_item stands for N neighbouring work-items of a work-group at once.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "exception.hpp"
#include "ext.hpp"
#include "range.hpp"

namespace sycl {

namespace detail {

// A strand is the flow of control of one sub-group, or of one work-item.
enum class strand_state : uint8_t { ready, at_group_barrier, at_sub_group, finished };

// One work-group as its strands see it.
struct group_state {
  size_t group[3] = {0, 0, 0};
  int strands = 0;
  int arrived = 0;           // strands at the end of the group, see lane_item::when_last
  bool lanes_mixed = false;  // the lanes of a sub-group are not in the order of its work-items, see sub_group
  // The values of lane_item::shared_by_launch: where they lie, the place in the kernel that made them, and their size.
  char* scratch = nullptr;
  const void* scratch_place = nullptr;
  size_t scratch_bytes = 0;
  struct fibers* running = nullptr;  // null where strands have no stacks of their own, and so cannot wait
};

// The strand waits until every strand of its group, or of its sub-group, waits at the same kind of barrier.
ORRERY_SYCL_API void meet(group_state& g, int strand, strand_state at);
// The exchange area of a work-group, one slot a strand; alternates so that one meeting a shuffle is enough.
constexpr size_t exchange_slot = 16;
ORRERY_SYCL_API char* exchange(group_state& g, int strand);
// The area of the group's reductions: one slot a strand, and one for the result.
ORRERY_SYCL_API char* reduction_slots(group_state& g);
// Bytes that live as long as the launch and belong to the calling thread; `fresh` on the first call of the launch.
// Throws where another place, or the same one for another size, has made the values of the launch.
ORRERY_SYCL_API char* launch_scratch(const void* place, size_t bytes, bool& fresh);

template <int D>
struct item_base {
  group_state* state;
  const nd_range<D>* ranges;
  int strand;
  size_t local_linear;

  size_t group(int d = 0) const { return state->group[d]; }
  size_t group_range(int d = 0) const { return ranges->get_group_range()[d]; }
  size_t local_range(int d = 0) const { return ranges->get_local_range()[d]; }
  size_t local(int d) const {
    size_t rest = local_linear;
    for (int i = D - 1; i > d; --i) rest /= local_range(i);
    return rest % local_range(d);
  }
  size_t global(int d) const { return group(d) * local_range(d) + local(d); }
};

}  // namespace detail

class sub_group;

namespace detail {

template <int D>
sub_group sub_group_of(const item_base<D>& at, int sub_group_size);
template <typename T>
T value_of_lane(const sub_group& sg, T value, size_t lane);

}  // namespace detail

class sub_group {
 public:
  uint32_t get_local_linear_id() const { return lane_; }
  uint32_t get_local_linear_range() const { return size_; }
  uint32_t get_group_linear_id() const { return number_; }
  uint32_t get_group_linear_range() const { return count_; }

 private:
  template <int D>
  friend sub_group detail::sub_group_of(const detail::item_base<D>& at, int sub_group_size);
  template <typename T>
  friend T detail::value_of_lane(const sub_group& sg, T value, size_t lane);
  friend void group_barrier(const sub_group& g);

  sub_group() = default;
  // Which work-item is which lane is nothing to rely on. Mixed lanes take every other work-item first, which a
  // butterfly shows; it would not show lanes that are turned or mirrored.
  uint32_t lane_of(uint32_t place) const {
    return state_->lanes_mixed ? place / 2 + (place % 2) * ((size_ + 1) / 2) : place;
  }
  uint32_t place_of(uint32_t lane) const {
    const uint32_t even = (size_ + 1) / 2;
    if (!state_->lanes_mixed) return lane;
    return lane < even ? 2 * lane : 2 * (lane - even) + 1;
  }
  void barrier() const { detail::meet(*state_, strand_, detail::strand_state::at_sub_group); }

  detail::group_state* state_;
  int strand_;
  uint32_t first_strand_, lane_, size_, number_, count_;
};

namespace detail {

// The sub-group of a strand that is one work-item. The last one of a group may be smaller than `sub_group_size`.
template <int D>
sub_group sub_group_of(const item_base<D>& at, int sub_group_size) {
  const size_t items = at.ranges->get_local_range().size(), place = at.local_linear % sub_group_size;
  const size_t size = std::min<size_t>(sub_group_size, items - (at.local_linear - place));
  sub_group sg;
  sg.state_ = at.state;
  sg.strand_ = at.strand;
  sg.first_strand_ = static_cast<uint32_t>(at.strand - place);
  sg.size_ = static_cast<uint32_t>(size);
  sg.lane_ = sg.lane_of(static_cast<uint32_t>(place));
  sg.number_ = static_cast<uint32_t>(at.local_linear / sub_group_size);
  sg.count_ = static_cast<uint32_t>((items + sub_group_size - 1) / sub_group_size);
  return sg;
}

template <typename T>
T value_of_lane(const sub_group& sg, T value, size_t lane) {
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= exchange_slot);
  if (lane >= sg.size_) {
    throw exception(errc::kernel, "A shuffle reads lane " + std::to_string(lane) + " of a sub-group of " +
                                      std::to_string(sg.size_) + ".");
  }
  // Slots of one size, since other sub-groups may be exchanging values of another type.
  char* slots = exchange(*sg.state_, sg.strand_);
  std::memcpy(slots + exchange_slot * sg.strand_, &value, sizeof(T));
  sg.barrier();
  const size_t strand = sg.first_strand_ + sg.place_of(static_cast<uint32_t>(lane));
  std::memcpy(&value, slots + exchange_slot * strand, sizeof(T));
  return value;
}

}  // namespace detail

template <typename T>
T select_from_group(const sub_group& sg, T value, id<1> lane) {
  return detail::value_of_lane(sg, value, lane[0]);
}
template <typename T>
T permute_group_by_xor(const sub_group& sg, T value, uint32_t mask) {
  return detail::value_of_lane(sg, value, sg.get_local_linear_id() ^ mask);
}

// The value of the lane `delta` above; its own where there is none, for which the standard names no value.
template <typename T>
T shift_group_left(const sub_group& sg, T value, uint32_t delta = 1) {
  const uint32_t lane = sg.get_local_linear_id(), above = sg.get_local_linear_range() - lane;
  return detail::value_of_lane(sg, value, delta < above ? lane + delta : lane);
}

template <typename T = void>
struct plus {
  T operator()(const T& a, const T& b) const { return a + b; }
};

template <int D>
class nd_item;

template <int D = 1>
class group;

template <int D, typename T>
T reduce_over_group(const group<D>& g, T value, plus<T> op);

template <int D>
class group {
 public:
  size_t get_group_id(int d) const { return at_.group(d); }
  size_t get_group_linear_id() const {
    size_t n = 0;
    for (int d = 0; d < D; ++d) n = n * at_.group_range(d) + at_.group(d);
    return n;
  }

 private:
  template <int E>
  friend void group_barrier(const group<E>& g);
  template <int E, typename T>
  friend T reduce_over_group(const group<E>& g, T value, plus<T> op);
  friend class nd_item<D>;

  explicit group(const detail::item_base<D>& at) : at_(at) {}

  detail::item_base<D> at_;
};

template <int D>
void group_barrier(const group<D>& g) {
  detail::meet(*g.at_.state, g.at_.strand, detail::strand_state::at_group_barrier);
}
inline void group_barrier(const sub_group& g) { g.barrier(); }

namespace detail {

// The sum over a group's strands, one work-item each: those whose ids are equal modulo 32 in their order, then the
// halving tree over the 32 sums.
template <typename T>
T sum_of_strands(const group_state& g, const char* slots) {
  constexpr int columns = 32;
  T sum[columns] = {};
  for (int strand = 0; strand < g.strands; ++strand) {
    T value;
    std::memcpy(&value, slots + exchange_slot * strand, sizeof(T));
    sum[strand % columns] = sum[strand % columns] + value;
  }
  for (int half = columns / 2; half >= 1; half /= 2) {
    for (int i = 0; i < half; ++i) sum[i] = sum[i] + sum[i + half];
  }
  return sum[0];
}

}  // namespace detail

template <int D, typename T>
T reduce_over_group(const group<D>& g, T value, plus<T>) {
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= detail::exchange_slot);
  detail::group_state& state = *g.at_.state;
  char* slots = detail::reduction_slots(state);
  char* result = slots + detail::exchange_slot * state.strands;
  std::memcpy(slots + detail::exchange_slot * g.at_.strand, &value, sizeof(T));
  group_barrier(g);
  if (g.at_.strand == 0) {
    const T sum = detail::sum_of_strands<T>(state, slots);
    std::memcpy(result, &sum, sizeof(T));
  }
  group_barrier(g);
  std::memcpy(&value, result, sizeof(T));
  return value;
}

template <int D = 1>
class nd_item {
 public:
  explicit nd_item(const detail::item_base<D>& at, int sub_group_size) : at_(at), sg_(sub_group_size) {}
  size_t get_global_id(int d) const { return at_.global(d); }
  size_t get_local_id(int d) const { return at_.local(d); }
  size_t get_group(int d) const { return at_.group(d); }
  size_t get_group_range(int d) const { return at_.group_range(d); }
  size_t get_local_range(int d) const { return at_.local_range(d); }
  size_t get_global_range(int d) const { return at_.group_range(d) * at_.local_range(d); }
  size_t get_local_linear_id() const { return at_.local_linear; }
  size_t get_global_linear_id() const {
    size_t n = 0;
    for (int d = 0; d < D; ++d) n = n * get_global_range(d) + at_.global(d);
    return n;
  }
  id<D> get_global_id() const {
    id<D> all;
    for (int d = 0; d < D; ++d) all[d] = at_.global(d);
    return all;
  }
  id<D> get_local_id() const {
    id<D> all;
    for (int d = 0; d < D; ++d) all[d] = at_.local(d);
    return all;
  }
  size_t get_group_linear_id() const { return get_group().get_group_linear_id(); }
  group<D> get_group() const { return group<D>(at_); }
  sub_group get_sub_group() const { return detail::sub_group_of(at_, sg_); }

 private:
  detail::item_base<D> at_;
  int sg_;
};

template <int D = 1>
class item {
 public:
  explicit item(id<D> at) : at_(at) {}
  size_t get_id(int d) const { return at_[d]; }
  id<D> get_id() const { return at_; }
  size_t operator[](int d) const { return at_[d]; }

 private:
  id<D> at_;
};

namespace ext::orrery {

// N work-items with neighbouring local ids: the value that a kernel generic over its item receives.
template <int D, int N>
class lane_item {
 public:
  static constexpr int lanes = N;
  // Strands run one after another, so the last one to arrive may act for the whole group.
  static constexpr bool last_acts_for_group = true;

  lane_item(const detail::item_base<D>& at) : at_(at) {}
  size_t group(int d = 0) const { return at_.group(d); }
  size_t group_range(int d = 0) const { return at_.group_range(d); }
  size_t local(int d = 0) const { return at_.local(d); }  // of the first lane
  size_t local_linear() const { return at_.local_linear; }
  size_t global(int d = 0) const { return at_.global(d); }
  void barrier() const { detail::meet(*at_.state, at_.strand, detail::strand_state::at_group_barrier); }
  // The first lane's index in its sub-group of SG, and that sub-group's in the group.
  template <int SG>
  size_t lane() const {
    if constexpr (N == 1) return detail::sub_group_of(at_, SG).get_local_linear_id();
    return at_.local_linear % SG;
  }
  template <int SG>
  size_t sub_group() const {
    return at_.local_linear / SG;
  }
  // The value of the work-item whose index in a sub-group of SG is this one's xor `bits`.
  template <int SG, typename T>
  T xor_lane(T value, size_t bits) const requires(N == 1) {
    return permute_group_by_xor(detail::sub_group_of(at_, SG), value, static_cast<uint32_t>(bits));
  }
  // The value of the work-item whose index in a sub-group of SG is `delta` above this one's.
  template <int SG, typename T>
  T lane_above(T value, uint32_t delta) const requires(N == 1) {
    return shift_group_left(detail::sub_group_of(at_, SG), value, delta);
  }
  // The sum over the group's work-items; each of them calls it.
  template <typename T>
  T group_sum(T value) const requires(N == 1) {
    return reduce_over_group(nd_item<D>(at_, 1).get_group(), value, plus<T>());
  }
  // Every strand calls this as its last act; the last one runs `whole`.
  template <typename F>
  void when_last(F&& whole) const {
    if (++at_.state->arrived == at_.state->strands) whole();
  }
  // `count` values that all groups of a launch share, made by `fill` once per launch and thread. A launch has one such
  // set, so a kernel calls this in one place and for one count.
  template <typename T, typename Fill>
  const T* shared_by_launch(size_t count, Fill&& fill) const {
    static char place;  // its address stands for the caller's place, since each lambda has a type of its own
    detail::group_state& g = *at_.state;
    const size_t bytes = count * sizeof(T);
    if (g.scratch_place != &place || g.scratch_bytes != bytes) {
      bool fresh = false;
      g.scratch = detail::launch_scratch(&place, bytes, fresh);
      g.scratch_place = &place;
      g.scratch_bytes = bytes;
      if (fresh) fill(reinterpret_cast<T*>(g.scratch));
    }
    return reinterpret_cast<const T*>(g.scratch);
  }

 private:
  detail::item_base<D> at_;
};

}  // namespace ext::orrery

}  // namespace sycl
