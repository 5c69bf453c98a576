// handler: local memory and parallel_for; and queue::submit.
#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <typeinfo>

#include "local_accessor.hpp"
#include "nd_item.hpp"
#include "queue.hpp"

namespace sycl {

namespace detail {

// A launch without its types.
struct launch_plan {
  size_t groups = 0;
  size_t groups_together = 1;  // neighbouring groups that one thread should run
  size_t local_items = 1;
  int lanes = 1;
  bool barriers = true;  // false: strands run to their end one after another, on the thread's own stack
  int sub_group_size = 1;
  size_t local_memory = 0;
  const void* context = nullptr;  // the typed_launch
  void (*set_group)(const void* context, group_state& g, size_t linear) = nullptr;
  void (*run_strand)(const void* context, group_state& g, int strand) = nullptr;
  // Strands and groups in their order.
  void (*run_groups)(const void* context, group_state& g, size_t begin, size_t end) = nullptr;
};

// A kernel that runs neighbouring groups at once: take_groups(item, most) does the work of the item's group and of
// those behind it, `most` at most, and returns their number. The last dimension runs fastest. The result is what the
// groups one by one give, which is how a shuffled schedule runs them. With groups_together() the kernel asks that so
// many neighbouring groups, from a multiple of their number on, are not dealt out to different threads.
template <typename Kernel, int D, int Lanes>
concept takes_groups = requires(const Kernel& kernel, const ext::orrery::lane_item<D, Lanes>& item, size_t most) {
  { kernel.take_groups(item, most) } -> std::same_as<size_t>;
};

// A launch with its types. `Call` gives the kernel the kind of item that it takes.
template <int D, int Lanes, typename Kernel, typename Call>
struct typed_launch {
  const Kernel& kernel;
  const nd_range<D>& ranges;
  range<D> groups;

  void set_group(group_state& g, size_t linear) const {
    for (int d = D - 1; d > 0; --d) {
      g.group[d] = linear % groups[d];
      linear /= groups[d];
    }
    g.group[0] = linear;
    g.arrived = 0;
  }
  // The same for the next group, without divisions: they took 5% of a fused projection.
  void next_group(group_state& g) const {
    for (int d = D - 1; d > 0; --d) {
      if (++g.group[d] < groups[d]) {
        g.arrived = 0;
        return;
      }
      g.group[d] = 0;
    }
    ++g.group[0];
    g.arrived = 0;
  }
  void run_strand(group_state& g, int strand) const {
    Call{}(kernel, item_base<D>{&g, &ranges, strand, static_cast<size_t>(strand) * Lanes});
  }
  void run_groups(group_state& g, size_t begin, size_t end) const {
    if constexpr (takes_groups<Kernel, D, Lanes>) {
      for (size_t linear = begin; linear < end;) {
        set_group(g, linear);
        linear += kernel.take_groups(ext::orrery::lane_item<D, Lanes>({&g, &ranges, 0, 0}), end - linear);
      }
    } else {
      set_group(g, begin);
      for (size_t linear = begin; linear < end; ++linear, next_group(g)) {
        for (int strand = 0; strand < g.strands; ++strand) run_strand(g, strand);
      }
    }
  }

  launch_plan plan() const {
    launch_plan p;
    p.groups = groups.size();
    if constexpr (requires { kernel.groups_together(); }) p.groups_together = kernel.groups_together();
    p.local_items = ranges.get_local_range().size();
    p.lanes = Lanes;
    p.context = this;
    p.set_group = [](const void* c, group_state& g, size_t linear) { of(c).set_group(g, linear); };
    p.run_strand = [](const void* c, group_state& g, int strand) { of(c).run_strand(g, strand); };
    p.run_groups = [](const void* c, group_state& g, size_t begin, size_t end) { of(c).run_groups(g, begin, end); };
    return p;
  }

 private:
  static const typed_launch& of(const void* context) { return *static_cast<const typed_launch*>(context); }
};

ORRERY_SYCL_API void run(const launch_plan& plan);
// Throws when a local range is beyond the device's limit or does not divide the global range.
ORRERY_SYCL_API void check_ranges(const size_t* global, const size_t* local, int dims);

// A kernel's own word holds for strands that are whole sub-groups; one strand per work-item has its lanes to bring
// together.
template <typename Kernel, int Lanes, int SG>
constexpr bool has_barriers() {
  if constexpr (requires { Kernel::has_barriers; }) {
    return Kernel::has_barriers || Lanes < SG;
  } else {
    return true;
  }
}

}  // namespace detail

template <typename T>
struct is_device_copyable : std::is_trivially_copyable<T> {};
template <typename T>
constexpr bool is_device_copyable_v = is_device_copyable<T>::value;

// A command group: its local memory, and at most one kernel, which runs inside parallel_for.
class handler {
 public:
  // The standard's form: one work-item after another.
  template <int D, typename Kernel>
  void parallel_for(nd_range<D> ranges, const Kernel& kernel) {
    constexpr int sg = 16;
    launch<1, sg, detail::has_barriers<Kernel, 1, sg>()>(
        ranges, kernel, [](const Kernel& k, const detail::item_base<D>& at) { k(nd_item<D>(at, sg)); });
  }

  template <int D, typename Kernel>
  void parallel_for(range<D> size, const Kernel& kernel) {
    detail::index<D> one;
    one.at.fill(1);
    launch<1, 1, false>(nd_range<D>(size, range<D>(one)), kernel, [](const Kernel& k, const detail::item_base<D>& at) {
      id<D> i;
      for (int d = 0; d < D; ++d) i[d] = at.group(d);
      k(item<D>(i));
    });
  }

  // The kernel is called with a lane_item of `Lanes` work-items; SG is the required sub-group size.
  template <int Lanes, int SG, int D, typename Kernel>
  void parallel_for_lanes(nd_range<D> ranges, const Kernel& kernel) {
    launch<Lanes, SG, detail::has_barriers<Kernel, Lanes, SG>()>(
        ranges, kernel,
        [](const Kernel& k, const detail::item_base<D>& at) { k(ext::orrery::lane_item<D, Lanes>(at)); });
  }

 private:
  friend class queue;
  template <typename T, int D>
  friend class local_accessor;

  handler(device d, const ext::orrery::code_location& where) : device_(d), where_(where) {}

  // Where `bytes` more of each work-group's local memory start.
  size_t add_local_memory(size_t bytes) {
    const size_t at = local_memory_;
    local_memory_ += (bytes + 63) / 64 * 64;
    if (__builtin_add_overflow(local_requested_, bytes, &local_requested_)) local_requested_ = SIZE_MAX;
    return at;
  }

  template <int Lanes, int SG, bool Barriers, int D, typename Kernel, typename Call>
  void launch(const nd_range<D>& ranges, const Kernel& kernel, Call) {
    static_assert(is_device_copyable_v<Kernel>, "a kernel is copied to its device byte by byte");
    const detail::typed_launch<D, Lanes, Kernel, Call> typed{kernel, ranges, ranges.get_group_range()};
    detail::launch_plan plan = typed.plan();
    plan.barriers = Barriers;
    plan.sub_group_size = SG;
    plan.local_memory = local_memory_;
    run(plan, array_of(ranges.get_global_range()), array_of(ranges.get_local_range()), typeid(Kernel));
  }

  // Checks the launch, runs it and, while launches are collected, records it.
  ORRERY_SYCL_API void run(const detail::launch_plan& plan, std::span<const size_t> global,
                           std::span<const size_t> local, const std::type_info& kernel);
  void check(std::span<const size_t> global, std::span<const size_t> local);

  device device_;
  ext::orrery::code_location where_;
  size_t local_memory_ = 0, local_requested_ = 0;  // bytes with and without what aligns them
  bool has_kernel_ = false;
  uint64_t launch_ = 0;
};

template <typename T, int D>
local_accessor<T, D>::local_accessor(range<D> size, handler& h)
    : offset_(h.add_local_memory(detail::bytes_of(size, sizeof(T)))), range_(size) {}

template <typename CommandGroup>
event queue::submit(CommandGroup&& cgf, const ext::orrery::code_location& where) {
  handler h(device_, where);
  cgf(h);
  return event(h.launch_);
}

}  // namespace sycl
