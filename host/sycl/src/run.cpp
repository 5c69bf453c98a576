// How a launch runs: work-groups in parallel on PyTorch's thread pool, the strands of a group one after another,
// switching only where they meet.
#include <ATen/Parallel.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>
#include <random>

#include "fibers.hpp"
#include "launch.hpp"

namespace sycl::detail {

constinit thread_local char* local_memory = nullptr;

namespace {

std::atomic<uint64_t> launches{0};

struct thread_memory {
  std::vector<char> local, scratch;
  uint64_t launch = 0, scratch_launch = 0;
};
thread_local thread_memory mine;

char* aligned(std::vector<char>& storage, size_t bytes) {
  if (storage.size() < bytes + 64) storage.resize(bytes + 64);
  const auto address = reinterpret_cast<uintptr_t>(storage.data());
  return storage.data() + (64 - address % 64) % 64;
}

std::vector<size_t> shuffled(size_t count, uint64_t seed) {
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), size_t(0));
  std::shuffle(order.begin(), order.end(), std::mt19937_64(seed));
  return order;
}

struct launch_run {
  const launch_plan& plan;
  uint64_t launch;
  bool shuffle;
  uint64_t seed;
  int strands;
  std::vector<size_t> order;  // of the groups, if shuffled

  void one_group(group_state& g, size_t at) const {
    const size_t linear = shuffle ? order[at] : at;
    plan.set_group(plan.context, g, linear);
    // What a kernel reads there without having written it shows as NaN or as a wild number.
    if (shuffle) std::memset(local_memory, 0xFF, plan.local_memory);
    if (plan.barriers && strands > 1) {
      run_fibers(plan, g, shuffle, seed ^ (linear * 0x9E3779B97F4A7C15ull));
    } else {
      for (size_t strand : shuffled(strands, seed ^ linear)) plan.run_strand(plan.context, g, static_cast<int>(strand));
    }
  }

  void groups(size_t begin, size_t end) const {
    mine.launch = launch;
    const kernel_scope scope(aligned(mine.local, plan.local_memory));
    group_state g;
    g.strands = strands;
    if (shuffle || (plan.barriers && strands > 1)) {
      for (size_t at = begin; at < end; ++at) one_group(g, at);
    } else {
      plan.run_groups(plan.context, g, begin, end);
    }
  }
};

}  // namespace

char* launch_scratch(size_t bytes, bool& fresh) {
  fresh = mine.scratch_launch != mine.launch;
  mine.scratch_launch = mine.launch;
  return aligned(mine.scratch, bytes);
}

void check_ranges(const size_t* global, const size_t* local, int dims) {
  size_t items = 1;
  for (int d = 0; d < dims; ++d) {
    items *= local[d];
    if (local[d] == 0 || global[d] % local[d] != 0) {
      throw exception(errc::nd_range, "The global range " + std::to_string(global[d]) + " of dimension " +
                                          std::to_string(d) + " is no multiple of its local range " +
                                          std::to_string(local[d]) + ".");
    }
  }
  const size_t limit = ext::orrery::configuration().max_work_group_size;
  if (items > limit) {
    throw exception(errc::nd_range, "A work-group of " + std::to_string(items) +
                                        " work-items is beyond the device's limit of " + std::to_string(limit) + ".");
  }
}

void run(const launch_plan& plan) {
  const auto& settings = ext::orrery::configuration();
  if (plan.local_items % plan.lanes != 0) {
    throw exception(errc::nd_range, "A work-group of " + std::to_string(plan.local_items) +
                                        " work-items is no whole number of sub-groups of " +
                                        std::to_string(plan.lanes) + ".");
  }
  const uint64_t launch = ++launches;
  launch_run r{plan, launch, settings.shuffle, settings.seed + launch, static_cast<int>(plan.local_items / plan.lanes),
               {}};
  if (r.shuffle) r.order = shuffled(plan.groups, r.seed);
  // Waking the pool costs about 2 us, more than so few strands usually take.
  constexpr size_t worth_threads = 32;
  try {
    if (plan.groups < 2 || plan.groups * r.strands <= worth_threads) {
      r.groups(0, plan.groups);
    } else {
      at::parallel_for(0, static_cast<int64_t>(plan.groups), 1, [&](int64_t begin, int64_t end) {
        r.groups(static_cast<size_t>(begin), static_cast<size_t>(end));
      });
    }
  } catch (const exception&) {
    throw;
  } catch (const std::exception& e) {
    throw exception(errc::kernel, std::string("A kernel failed: ") + e.what());
  } catch (...) {
    throw exception(errc::kernel, "A kernel failed.");
  }
}

}  // namespace sycl::detail
