// How threads share a launch. Its grains are dealt out in equal shares. A thread takes piece by piece from its own
// share, each a part of what is left, then from other shares. Taking a piece is one compare-exchange; a thread need not
// join or leave a launch in any other way. So the caller never waits for a worker that sleeps, and for one that the
// system has preempted only if it holds a piece.
//
// Measured with SmolLM2-135M in q4_0, 2 threads on 2 cores (Xeon with AVX512-FP16), tokens per second of an answer:
//
//                                               alone   one busy loop   two
//   this                                          139              89    52
//   OpenMP's parallel regions                     146         7 to 14    51
//   oneTBB, pieces of the same size               133              74    37
//   PyTorch's inter-op pool, same way of sharing   84              79    66
//   one thread                                     76              77    54
#include "threads.hpp"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <new>
#include <system_error>
#include <thread>
#include <type_traits>

#include "openmp.hpp"

namespace sycl::detail {

namespace {

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A launch is shared among no more threads than this.
constexpr size_t most_threads = 256;
// Grains per thread, and which part of those left in a share is taken at once.
constexpr size_t grains_per_share = 64, part_taken = 3;
// How long an idle worker stays awake, and how long on a crowded machine, where it would use up its time slice. Waking
// a worker costs the caller 2 us, and on a virtual machine it starts 0.4 ms late: a product of 340 us took 530.
constexpr clock::duration awake_time = 3ms, awake_time_in_crowd = 200us;
// From here on an idle worker yields its processor between its polls: after a launch PyTorch's own threads may want it.
// Without that the products of a prompt of 256 tokens ran on one processor for long, and it took 585 ms instead of 410.
// Not on a crowded machine, where a yield is answered by a whole time slice of somebody else.
constexpr auto polite_after = 20us;
// A worker yields its processor between two pieces after this time, before the system preempts it in the middle of one
// and the caller has to wait. A scheduler's time slice is about 3 ms: with 3 ms here the caller waited ten times as
// long, with 0.5 ms the worker ran half as many pieces.
constexpr auto turn_time = 1500us;
// A thread that finds this much time gone between two pieces was preempted.
constexpr auto preempted_time = 500us;
// For how long the machine counts as crowded after the caller was preempted.
constexpr auto crowded_time = 10ms;
// How often the caller checks whether it was preempted.
constexpr auto check_time = 1ms;
// The caller's wait for the workers' last pieces: this many polls at once, then one after each nap. A sleeping caller
// leaves its processor to the worker, even if that is queued for another one; yielding does not.
constexpr int polls_before_nap = 2000;
constexpr auto nap_time = 50us;

void relax() {
#if defined(__SSE2__)
  __builtin_ia32_pause();
#endif
}

// What is left of a thread's share of a launch: the grains [next, end). Aligned as a word: otherwise Clang calls a
// library function for each atomic operation.
struct alignas(uint64_t) share_left {
  uint32_t launch;
  uint16_t next, end;

  // Where the piece ends that is taken next.
  uint16_t piece_end() const { return next + static_cast<uint16_t>((end - next + part_taken - 1) / part_taken); }
};

struct alignas(64) slot {
  std::atomic<share_left> left{share_left{0, 0, 0}};
  std::atomic<int> asleep{0};
};
static_assert(std::atomic<share_left>::is_always_lock_free);
static_assert(most_threads * grains_per_share <= UINT16_MAX);

// What a thread needs to run some grains of a launch. The caller changes it only between launches.
struct shared_launch {
  void (*run)(void* context, size_t begin, size_t end);
  void* context;
  size_t count, grains;  // of grains the most that are wanted, until the launch is dealt out

  void all() const { run(context, 0, count); }
  void some(size_t begin, size_t end) const { run(context, count * begin / grains, count * end / grains); }
};

// Keeps a worker off the caller's processor. The system tends to wake it there, where only one of the two can run while
// other processors are idle.
class processor {
 public:
  processor() { known_ = sched_getaffinity(0, sizeof allowed_, &allowed_) == 0; }
  void keep_off(int caller) {
    if (!known_ || caller < 0 || sched_getcpu() != caller) return;
    cpu_set_t others = allowed_;
    CPU_CLR(caller, &others);
    if (CPU_COUNT(&others) > 0) sched_setaffinity(0, sizeof others, &others);
  }

 private:
  cpu_set_t allowed_;
  bool known_;
};

// A worker's time slice: tells when it should yield.
class turn {
 public:
  bool over() {
    const auto now = clock::now();
    if (now - last_ > preempted_time) start_ = now;
    last_ = now;
    return now - start_ > turn_time;
  }
  void yield() {
    sched_yield();
    start_ = last_ = clock::now();
  }

 private:
  clock::time_point start_ = clock::now(), last_ = start_;
};

// Whether the caller itself is preempted now and then, as beside two busy neighbours on two processors. Workers do not
// yield then, as they would miss the times when the caller runs: 50 tokens per second instead of 45.
class crowd {
 public:
  bool around() {
    const auto now = clock::now();
    if (now - checked_ > check_time) {
      rusage usage;
      getrusage(RUSAGE_THREAD, &usage);
      if (usage.ru_nivcsw != preemptions_) until_ = now + crowded_time;
      preemptions_ = usage.ru_nivcsw;
      checked_ = now;
    }
    return now < until_;
  }

 private:
  clock::time_point checked_, until_;
  long preemptions_ = 0;
};

class pool {
 public:
  void share(size_t threads, const shared_launch& launch) {
    if (busy_.exchange(true, std::memory_order_acquire)) return launch.all();
    threads = std::min(threads, with_workers(threads - 1) + 1);
    deal(threads, launch);
    const size_t mine = take(0, number_, [](size_t&) {});
    wait_for(launch_.grains - mine);
    busy_.store(false, std::memory_order_release);
  }

 private:
  // Starts workers until there are `wanted` or the system refuses one; returns their number.
  size_t with_workers(size_t wanted) {
    try {
      for (; workers_ < wanted; ++workers_) std::thread(&pool::work, this, workers_ + 1).detach();
    } catch (const std::system_error&) {
    }
    return workers_;
  }

  void deal(size_t threads, const shared_launch& launch) {
    static thread_local crowd others;
    launch_ = launch;
    launch_.grains = std::max(std::min(launch.grains, grains_per_share * threads), threads);
    shares_.store(threads, std::memory_order_relaxed);
    caller_processor_.store(sched_getcpu(), std::memory_order_relaxed);
    crowded_.store(others.around(), std::memory_order_relaxed);
    done_.store(0, std::memory_order_relaxed);
    ++number_;
    // The workers' shares first, so that they begin while the caller is still dealing.
    for (size_t t = threads; t-- > 0;) {
      const auto begin = static_cast<uint16_t>(launch_.grains * t / threads);
      const auto end = static_cast<uint16_t>(launch_.grains * (t + 1) / threads);
      slots_[t].left.store({number_, begin, end});
      if (slots_[t].asleep.load()) wake(slots_[t]);
    }
  }

  // Runs the grains of launch `number` that nobody has taken yet, those of share `self` first, and returns how many.
  // Calls between(count) after each piece.
  template <typename Between>
  size_t take(size_t self, uint32_t number, Between between) {
    size_t taken = 0;
    const size_t shares = shares_.load(std::memory_order_relaxed);
    for (size_t k = 0; k < shares; ++k) {
      auto& left = slots_[(self + k) % shares].left;
      share_left seen = dealt(left, number);
      while (seen.launch == number && seen.next < seen.end) {
        const share_left rest{number, seen.piece_end(), seen.end};
        // Succeeds only while the launch is running, and it cannot end before this piece is counted in done_.
        if (left.compare_exchange_weak(seen, rest, std::memory_order_acq_rel, std::memory_order_acquire)) {
          launch_.some(seen.next, rest.next);
          between(taken += rest.next - seen.next);
          seen = left.load(std::memory_order_acquire);
        }
      }
    }
    return taken;
  }

  // A share of launch `number`, or of a later one. A worker may have run its own share before the caller has dealt this
  // one; if it passed by, it would not come back, and the caller would be left alone with it.
  static share_left dealt(const std::atomic<share_left>& left, uint32_t number) {
    share_left seen = left.load(std::memory_order_acquire);
    for (unsigned polls = 1; static_cast<int32_t>(seen.launch - number) < 0; ++polls) {
      if (polls % 32 != 0) {
        relax();
      } else {
        sched_yield();
      }
      seen = left.load(std::memory_order_acquire);
    }
    return seen;
  }

  void wait_for(size_t grains) {
    for (int polls = 0; done_.load(std::memory_order_acquire) < grains; ++polls) {
      if (polls < polls_before_nap) {
        relax();
      } else {
        std::this_thread::sleep_for(nap_time);
      }
    }
  }

  clock::duration patience() const {
    return crowded_.load(std::memory_order_relaxed) ? awake_time_in_crowd : awake_time;
  }

  void count_done(size_t& taken) {
    if (taken) done_.fetch_add(taken, std::memory_order_release);
    taken = 0;
  }

  void work(size_t self) {
    sigset_t all;  // signals are for the program's own threads
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    slot& mine = slots_[self];
    processor where;
    turn my_turn;
    uint32_t number = 0;
    auto idle_since = clock::now();
    for (unsigned polls = 0;; ++polls) {
      if (const uint32_t now = mine.left.load(std::memory_order_acquire).launch; now != number) {
        number = now;
        where.keep_off(caller_processor_.load(std::memory_order_relaxed));
        size_t taken = take(self, number, [&](size_t& taken) {
          if (!crowded_.load(std::memory_order_relaxed) && my_turn.over()) {
            count_done(taken);  // the caller must not wait for what is finished
            my_turn.yield();
          }
        });
        count_done(taken);
        idle_since = clock::now();
      } else if (polls % 32 != 0) {
        relax();
      } else if (const auto idle = clock::now() - idle_since; idle > patience()) {
        sleep(mine, number);
        idle_since = clock::now();
      } else if (idle > polite_after && !crowded_.load(std::memory_order_relaxed)) {
        sched_yield();
      }
    }
  }

  // Sleeps until a share of a launch other than `number` is dealt. The stores and loads of deal() and sleep() are
  // sequentially consistent, so at least one of the two sees the other's store.
  static void sleep(slot& mine, uint32_t number) {
    mine.asleep.store(1);
    if (mine.left.load().launch == number) mine.asleep.wait(1);
    mine.asleep.store(0);
  }
  static void wake(slot& other) {
    other.asleep.store(0);
    other.asleep.notify_one();
  }

  std::atomic<bool> busy_{false};  // a launch is being shared
  size_t workers_ = 0;
  uint32_t number_ = 0;
  shared_launch launch_{};
  std::atomic<size_t> shares_{0};
  std::atomic<int> caller_processor_{-1};
  std::atomic<bool> crowded_{false};
  alignas(64) std::atomic<size_t> done_{0};  // grains that workers have finished
  slot slots_[most_threads];
};

// Initialised before any thread starts: a child forked while another thread initialised it would wait forever.
constinit pool the_pool;
static_assert(std::is_trivially_destructible_v<pool>);  // workers may use it until the process ends

// A forked child has no workers, and another thread's launch may have been running at the fork. It gets a new pool.
[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, [] { new (&the_pool) pool; });

}  // namespace

void share(size_t count, int threads, size_t most_ranges, void (*run)(void* context, size_t begin, size_t end),
           void* context) {
  const size_t most = std::min({static_cast<size_t>(threads), count, most_threads});
  const shared_launch launch{run, context, count, std::min(count, most_ranges)};
  if (most < 2) return launch.all();
  bound_openmp_spinning();
  the_pool.share(most, launch);
}

}  // namespace sycl::detail
