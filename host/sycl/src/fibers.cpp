#include "fibers.hpp"

#include <unistd.h>

#include <algorithm>
#include <boost/context/detail/fcontext.hpp>
#include <boost/context/protected_fixedsize_stack.hpp>
#include <memory>
#include <numeric>
#include <random>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#elif defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace sycl::detail {

namespace ctx = boost::context::detail;

namespace {

constexpr size_t stack_bytes = 256 * 1024;
constexpr const char* no_barriers = "A kernel that declares no barriers met one.";

// What Boost asks of a stack. Boost's own class for it is in a static library that, where it was built without -fPIC as
// in Debian, does not link into a shared one.
struct stack_traits {
  static bool is_unbounded() { return true; }
  static size_t page_size() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  static size_t default_size() { return stack_bytes; }
  static size_t minimum_size() { return stack_bytes; }
  static size_t maximum_size() { return stack_bytes; }
};
using stack_pool = boost::context::basic_protected_fixedsize_stack<stack_traits>;

// Thrown at the barrier where a strand waits, to unwind it once its group has failed.
struct abandoned {};

// How the sanitizers know a stack. They are told before and after each switch.
struct known_stack {
#if defined(__SANITIZE_ADDRESS__)
  const void* bottom = nullptr;
  size_t size = 0;
  void* fake = nullptr;
#elif defined(__SANITIZE_THREAD__)
  void* flow = nullptr;
#endif
};

known_stack made_known([[maybe_unused]] const boost::context::stack_context& stack) {
#if defined(__SANITIZE_ADDRESS__)
  return {static_cast<char*>(stack.sp) - stack.size, stack.size};
#elif defined(__SANITIZE_THREAD__)
  return {__tsan_create_fiber(0)};
#else
  return {};
#endif
}

void forget([[maybe_unused]] const known_stack& stack) {
#if defined(__SANITIZE_ADDRESS__)
  // The frames of a suspended fiber never return; the next owner of these pages must not find their red zones.
  __asan_unpoison_memory_region(stack.bottom, stack.size);
#elif defined(__SANITIZE_THREAD__)
  __tsan_destroy_fiber(stack.flow);
#endif
}

// Always inlined: ThreadSanitizer would record the return from it on the other stack.
[[gnu::always_inline]] inline void before_switch([[maybe_unused]] known_stack& from,
                                                 [[maybe_unused]] const known_stack& to) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(&from.fake, to.bottom, to.size);
#elif defined(__SANITIZE_THREAD__)
  from.flow = __tsan_get_current_fiber();
  __tsan_switch_to_fiber(to.flow, 0);
#endif
}

void after_switch([[maybe_unused]] known_stack& from, [[maybe_unused]] const known_stack& to) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(to.fake, &from.bottom, &from.size);
#endif
}

struct fiber {
  boost::context::stack_context stack;
  known_stack known;
  ctx::fcontext_t at = nullptr;
  strand_state state = strand_state::finished;
  fibers* owner = nullptr;
  int strand = 0;
  bool started = false;  // in the current group
};

}  // namespace

// A thread's fibers, kept from group to group.
struct fibers {
  std::vector<std::unique_ptr<fiber>> all;
  const launch_plan* plan = nullptr;
  group_state* group = nullptr;
  ctx::fcontext_t scheduler = nullptr;
  std::exception_ptr failure;
  bool abandoning = false;
  std::vector<char> exchange, reduction;
  std::vector<uint8_t> parity;
  known_stack scheduler_known;

  ~fibers() {
    stack_pool pool(stack_bytes);
    for (auto& f : all) {
      forget(f->known);
      pool.deallocate(f->stack);
    }
  }

  void grow(int strands) {
    stack_pool pool(stack_bytes);
    while (static_cast<int>(all.size()) < strands) {
      auto f = std::make_unique<fiber>();
      f->stack = pool.allocate();
      f->known = made_known(f->stack);
      f->owner = this;
      f->strand = static_cast<int>(all.size());
      f->at = ctx::make_fcontext(f->stack.sp, f->stack.size, &fibers::main);
      all.push_back(std::move(f));
    }
  }

  // Runs a strand until it reaches a barrier or ends.
  void resume(fiber& f) {
    f.started = true;
    before_switch(scheduler_known, f.known);
    const ctx::transfer_t back = ctx::jump_fcontext(f.at, &f);
    after_switch(f.known, scheduler_known);
    f.at = back.fctx;
  }

  void suspend(fiber& f) {
    before_switch(f.known, scheduler_known);
    scheduler = ctx::jump_fcontext(scheduler, nullptr).fctx;
    after_switch(scheduler_known, f.known);
  }

  static void main(ctx::transfer_t from) {
    auto& f = *static_cast<fiber*>(from.data);
    auto& self = *f.owner;
    self.scheduler = from.fctx;
    after_switch(self.scheduler_known, f.known);
    for (;;) {
      try {
        self.plan->run_strand(self.plan->context, *self.group, f.strand);
      } catch (const abandoned&) {
      } catch (...) {
        if (!self.failure) self.failure = std::current_exception();
      }
      f.state = strand_state::finished;
      self.suspend(f);
    }
  }
};

namespace {

thread_local fibers mine;

bool gone(const fiber& f) { return f.state == strand_state::finished; }

// Lets the strands [begin, end) go on if they all wait at `where`.
bool release(fibers& set, int begin, int end, strand_state where) {
  for (int i = begin; i < end; ++i) {
    if (set.all[i]->state != where) return false;
  }
  for (int i = begin; i < end; ++i) set.all[i]->state = strand_state::ready;
  return true;
}

void abandon(fibers& set, int strands) {
  set.abandoning = true;
  for (int i = 0; i < strands; ++i) {
    fiber& f = *set.all[i];
    if (!f.started) f.state = strand_state::finished;
    while (!gone(f)) {
      f.state = strand_state::ready;
      set.resume(f);
    }
  }
  set.abandoning = false;
}

}  // namespace

void run_fibers(const launch_plan& plan, group_state& g, bool shuffle, uint64_t seed) {
  fibers& set = mine;
  const int strands = g.strands;
  set.grow(strands);
  set.plan = &plan;
  set.group = &g;
  set.failure = nullptr;
  set.parity.assign(strands, 0);
  g.running = &set;
  for (int i = 0; i < strands; ++i) {
    set.all[i]->state = strand_state::ready;
    set.all[i]->started = false;
  }

  std::vector<int> order;
  std::mt19937_64 random(seed);
  if (shuffle) {
    order.resize(strands);
    std::iota(order.begin(), order.end(), 0);
  }
  const int per_sub_group = std::max(1, plan.sub_group_size / plan.lanes);
  for (;;) {
    if (shuffle) std::shuffle(order.begin(), order.end(), random);
    bool waiting = false;
    for (int k = 0; k < strands; ++k) {
      fiber& f = *set.all[shuffle ? order[k] : k];
      if (f.state == strand_state::ready) set.resume(f);
      if (!gone(f)) waiting = true;
      if (set.failure) break;
    }
    if (set.failure || !waiting) break;
    bool progress = release(set, 0, strands, strand_state::at_group_barrier);
    for (int i = 0; i < strands; i += per_sub_group) {
      if (release(set, i, std::min(strands, i + per_sub_group), strand_state::at_sub_group)) progress = true;
    }
    if (!progress) {
      set.failure = std::make_exception_ptr(exception(
          errc::kernel, "A strand of a work-group ended, or met elsewhere, while others wait for it at a barrier."));
      break;
    }
  }
  g.running = nullptr;
  if (set.failure) {
    abandon(set, strands);
    std::rethrow_exception(set.failure);
  }
}

void meet(group_state& g, int strand, strand_state at) {
  if (g.strands == 1) return;
  if (!g.running) throw exception(errc::kernel, no_barriers);
  fibers& set = *g.running;
  fiber& f = *set.all[strand];
  f.state = at;
  set.suspend(f);
  if (set.abandoning) throw abandoned{};
}

char* exchange(group_state& g, int strand) {
  thread_local char alone[exchange_slot];
  if (g.strands == 1) return alone;
  if (!g.running) throw exception(errc::kernel, no_barriers);
  fibers& set = *g.running;
  set.exchange.resize(2 * exchange_slot * g.strands);
  const size_t half = set.parity[strand]++ & 1;
  return set.exchange.data() + half * exchange_slot * g.strands;
}

char* reduction_slots(group_state& g) {
  thread_local char alone[2 * exchange_slot];
  if (g.strands == 1) return alone;
  if (!g.running) throw exception(errc::kernel, no_barriers);
  std::vector<char>& slots = g.running->reduction;
  slots.resize(exchange_slot * (g.strands + 1));
  return slots.data();
}

}  // namespace sycl::detail
