// How a launch runs: threads share its work-groups; the strands of a group run one after another on one thread and
// switch only at barriers.
#include <ATen/Parallel.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>
#include <random>

#include "fibers.hpp"
#include "launch.hpp"
#include "threads.hpp"

namespace sycl::detail {

constinit thread_local char* local_memory = nullptr;

namespace {

std::atomic<uint64_t> launches{0};

// What a thread keeps from launch to launch.
struct thread_memory {
  std::vector<char> local, scratch;
  uint64_t launch = 0;  // the one that the thread runs
  // The values in `scratch`: their launch, the place in its kernel that made them, their size.
  uint64_t scratch_launch = 0;
  const void* scratch_place = nullptr;
  size_t scratch_bytes = 0;
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

class launch_run {
 public:
  launch_run(const launch_plan& plan, const ext::orrery::settings& settings)
      : plan_(plan),
        launch_(++launches),
        shuffle_(settings.shuffle),
        seed_(settings.seed + launch_),
        strands_(static_cast<int>(plan.local_items / plan.lanes)),
        needs_fibers_(plan.barriers && strands_ > 1) {
    if (shuffle_) order_ = shuffled(plan.groups, seed_);
  }

  void run() {
    // Sharing costs 0.5 us, and 2 us more if a worker has to be woken: more than so few strands usually take.
    constexpr size_t worth_threads = 32;
    const bool alone = plan_.groups * strands_ <= worth_threads || at::in_parallel_region();
    const int threads = alone ? 1 : at::get_num_threads();
    // With few units for each thread a piece is a thread's whole share, in which groups still run together.
    constexpr size_t units_per_thread = 4;
    size_t most_pieces = SIZE_MAX;
    if (plan_.groups >= units_per_thread * threads * plan_.groups_together) {
      unit_ = plan_.groups_together;
    } else if (plan_.groups_together > 1) {
      most_pieces = threads;
    }
    share((plan_.groups + unit_ - 1) / unit_, threads, most_pieces,
          [](void* self, size_t begin, size_t end) { static_cast<launch_run*>(self)->try_units(begin, end); }, this);
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  // Keeps the first exception; pieces that have not begun by then are skipped.
  void try_units(size_t begin, size_t end) {
    if (failed_.load(std::memory_order_relaxed)) return;
    try {
      groups(begin * unit_, std::min(end * unit_, plan_.groups));
    } catch (...) {
      if (!failed_.exchange(true)) failure_ = std::current_exception();
    }
  }

  void one_group(group_state& g, size_t at) const {
    const size_t linear = shuffle_ ? order_[at] : at;
    plan_.set_group(plan_.context, g, linear);
    // A kernel that reads local memory before it writes it gets NaN or a wild number.
    if (shuffle_) std::memset(local_memory, 0xFF, plan_.local_memory);
    if (needs_fibers_) {
      run_fibers(plan_, g, shuffle_, seed_ ^ (linear * 0x9E3779B97F4A7C15ull));
    } else {
      for (size_t strand : shuffled(strands_, seed_ ^ linear))
        plan_.run_strand(plan_.context, g, static_cast<int>(strand));
    }
  }

  void groups(size_t begin, size_t end) const {
    mine.launch = launch_;
    const kernel_scope scope(aligned(mine.local, plan_.local_memory));
    group_state g;
    g.strands = strands_;
    g.lanes_mixed = shuffle_;
    if (shuffle_ || needs_fibers_) {
      for (size_t at = begin; at < end; ++at) one_group(g, at);
    } else {
      plan_.run_groups(plan_.context, g, begin, end);
    }
  }

  const launch_plan& plan_;
  const uint64_t launch_;
  const bool shuffle_;
  const uint64_t seed_;
  const int strands_;
  const bool needs_fibers_;
  size_t unit_ = 1;            // groups that are dealt out together
  std::vector<size_t> order_;  // of the groups, if shuffled
  std::atomic<bool> failed_{false};
  std::exception_ptr failure_;
};

}  // namespace

// Each thread makes its own values. Threads begin together, so with one copy for all the others would have to wait. A
// row of 4096 floats takes 4 us of a product's 360, a row of 576 takes 0.6 us of 25.
char* launch_scratch(const void* place, size_t bytes, bool& fresh) {
  fresh = mine.scratch_launch != mine.launch;
  if (!fresh && (place != mine.scratch_place || bytes != mine.scratch_bytes)) {
    throw exception(errc::kernel, "A kernel may call shared_by_launch in one place only, and there for one count.");
  }
  mine.scratch_launch = mine.launch;
  mine.scratch_place = place;
  mine.scratch_bytes = bytes;
  return aligned(mine.scratch, bytes);
}

void check_ranges(const size_t* global, const size_t* local, int dims) {
  size_t items = 1, groups = 1;
  for (int d = 0; d < dims; ++d) {
    if (local[d] == 0 || global[d] % local[d] != 0) {
      throw exception(errc::nd_range, "The global range " + std::to_string(global[d]) + " of dimension " +
                                          std::to_string(d) + " is no multiple of its local range " +
                                          std::to_string(local[d]) + ".");
    }
    if (__builtin_mul_overflow(items, local[d], &items)) items = SIZE_MAX;
    if (__builtin_mul_overflow(groups, global[d] / local[d], &groups)) {
      throw exception(errc::nd_range, "A launch of more than 2^64 work-groups can't be counted.");
    }
  }
  const size_t limit = ext::orrery::configuration().max_work_group_size;
  if (items > limit) {
    throw exception(errc::nd_range, "A work-group of " + std::to_string(items) +
                                        " work-items is beyond the device's limit of " + std::to_string(limit) + ".");
  }
}

void run(const launch_plan& plan) {
  if (plan.local_items % plan.lanes != 0) {
    throw exception(errc::nd_range, "A work-group of " + std::to_string(plan.local_items) +
                                        " work-items is no whole number of sub-groups of " +
                                        std::to_string(plan.lanes) + ".");
  }
  try {
    launch_run(plan, ext::orrery::configuration()).run();
  } catch (const exception&) {
    throw;
  } catch (const std::exception& e) {
    throw exception(errc::kernel, std::string("A kernel failed: ") + e.what());
  } catch (...) {
    throw exception(errc::kernel, "A kernel failed.");
  }
}

}  // namespace sycl::detail
