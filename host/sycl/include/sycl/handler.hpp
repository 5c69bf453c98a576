// handler: local memory and parallel_for; and queue::submit.
#pragma once

#include <chrono>
#include <typeinfo>

#include "local_accessor.hpp"
#include "nd_item.hpp"
#include "queue.hpp"

namespace sycl {

namespace detail {

// A launch without its types.
struct launch_plan {
  size_t groups = 0;
  size_t local_items = 1;
  int lanes = 1;
  bool barriers = true;  // false: strands run to their end one after another, on the thread's own stack
  bool in_sub_groups = false;
  int sub_group_size = 1;
  size_t local_memory = 0;
  const void* context = nullptr;
  void (*set_group)(const void* context, group_state& g, size_t linear) = nullptr;
  void (*run_strand)(const void* context, group_state& g, int strand) = nullptr;
  // Strands and groups in their order.
  void (*run_groups)(const void* context, group_state& g, size_t begin, size_t end) = nullptr;
};

ORRERY_SYCL_API void run(const launch_plan& plan);
// Throws when a local range is beyond the device's limit or does not divide the global range.
ORRERY_SYCL_API void check_ranges(const size_t* global, const size_t* local, int dims);

ORRERY_SYCL_API bool recording();
ORRERY_SYCL_API uint64_t add_record(ext::orrery::launch_record r, const std::type_info& kernel);

// A kernel's own word holds for strands that are whole sub-groups; one strand a work-item has its lanes to bring
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

class handler {
 public:
  handler(device d, const ext::orrery::code_location& where) : device_(d), where_(where) {}

  // The standard's form: one work-item after another.
  template <int D, typename Kernel>
  void parallel_for(nd_range<D> ranges, const Kernel& kernel) {
    constexpr int sg = 16;
    launch<1, sg>(ranges, kernel, [](const Kernel& k, const detail::item_base<D>& at) { k(nd_item<D>(at, sg)); });
  }

  template <int D, typename Kernel>
  void parallel_for(range<D> size, const Kernel& kernel) {
    range<D> one;
    for (int d = 0; d < D; ++d) one[d] = 1;
    parallel_lanes<1, 1, false>(nd_range<D>(size, one), kernel, [](const Kernel& k, const detail::item_base<D>& at) {
      id<D> i;
      for (int d = 0; d < D; ++d) i[d] = at.group(d);
      k(item<D>(i));
    });
  }

  // The kernel is called with a lane_item of `Lanes` work-items; SG is the required sub-group size.
  template <int Lanes, int SG, int D, typename Kernel>
  void parallel_for_lanes(nd_range<D> ranges, const Kernel& kernel) {
    launch<Lanes, SG>(ranges, kernel,
                      [](const Kernel& k, const detail::item_base<D>& at) { k(ext::orrery::lane_item<D, Lanes>(at)); });
  }

  size_t add_local_memory(size_t bytes) {
    const size_t at = local_memory_;
    local_memory_ += (bytes + 63) / 64 * 64;
    local_requested_ += bytes;
    return at;
  }
  event done() const { return event(launch_); }

 private:
  template <int Lanes, int SG, int D, typename Kernel, typename Call>
  void launch(nd_range<D> ranges, const Kernel& kernel, Call call) {
    parallel_lanes<Lanes, SG, detail::has_barriers<Kernel, Lanes, SG>()>(ranges, kernel, call);
  }

  template <int Lanes, int SG, bool Barriers, int D, typename Kernel, typename Call>
  void parallel_lanes(nd_range<D> ranges, const Kernel& kernel, Call) {
    const auto global = ranges.get_global_range(), local = ranges.get_local_range();
    detail::check_ranges(global.at.data(), local.at.data(), D);
    struct context {
      const Kernel* kernel;
      const nd_range<D>* ranges;
      range<D> groups;
    };
    const context c{&kernel, &ranges, ranges.get_group_range()};
    detail::launch_plan plan;
    plan.groups = c.groups.size();
    plan.local_items = local.size();
    plan.lanes = Lanes;
    plan.barriers = Barriers;
    plan.sub_group_size = SG;
    plan.local_memory = local_memory_;
    plan.context = &c;
    plan.set_group = [](const void* p, detail::group_state& g, size_t linear) {
      set_group<D>(static_cast<const context*>(p)->groups, g, linear);
    };
    plan.run_strand = [](const void* p, detail::group_state& g, int strand) {
      const auto& c = *static_cast<const context*>(p);
      Call{}(*c.kernel, detail::item_base<D>{&g, c.ranges, strand, static_cast<size_t>(strand) * Lanes});
    };
    plan.run_groups = [](const void* p, detail::group_state& g, size_t begin, size_t end) {
      const auto& c = *static_cast<const context*>(p);
      for (size_t linear = begin; linear < end; ++linear) {
        set_group<D>(c.groups, g, linear);
        for (int strand = 0; strand < g.strands; ++strand) {
          Call{}(*c.kernel, detail::item_base<D>{&g, c.ranges, strand, static_cast<size_t>(strand) * Lanes});
        }
      }
    };
    const auto start = std::chrono::steady_clock::now();
    if (plan.groups > 0) detail::run(plan);
    if (detail::recording()) {
      ext::orrery::launch_record r;
      r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      r.file = where_.file;
      r.function = where_.function;
      r.line = where_.line;
      r.column = where_.column;
      r.global_size.assign(global.at.begin(), global.at.end());
      r.local_size.assign(local.at.begin(), local.at.end());
      r.sub_group_size = SG;
      r.local_memory = local_requested_;
      r.device = device_.index();
      launch_ = detail::add_record(std::move(r), typeid(Kernel));
    }
  }

  template <int D>
  static void set_group(const range<D>& groups, detail::group_state& g, size_t linear) {
    for (int d = D - 1; d > 0; --d) {
      g.group[d] = linear % groups[d];
      linear /= groups[d];
    }
    g.group[0] = linear;
    g.arrived = 0;
  }

  device device_;
  ext::orrery::code_location where_;
  size_t local_memory_ = 0, local_requested_ = 0;
  uint64_t launch_ = 0;
};

template <typename T, int D>
local_accessor<T, D>::local_accessor(range<D> size, handler& h)
    : offset_(h.add_local_memory(size.size() * sizeof(T))), size_(size.size()) {}

template <typename CommandGroup>
event queue::submit(CommandGroup&& cgf, const ext::orrery::code_location& where) {
  handler h(device_, where);
  cgf(h);
  return h.done();
}

}  // namespace sycl
