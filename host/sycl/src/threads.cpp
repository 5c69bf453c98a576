// How threads share a launch. Its pieces are dealt out in equal shares; a thread takes pieces from its own share one by
// one, then from what is left of the others'. Taking a piece is one compare-exchange, and there is nothing else to join
// or to leave. So the caller never waits for a thread that sleeps or that the system has put aside, unless that thread
// has a piece in its hands.
//
// Measured with SmolLM2-135M in q4_0, 2 threads on 2 cores (Xeon with AVX512-FP16), tokens per second of an answer:
//
//                                               alone   one busy loop   two
//   this                                          139              89    52
//   OpenMP's parallel regions                     146         7 to 14    51
//   oneTBB, pieces of the same size               133              74    37
//   PyTorch's inter-op pool, pieces taken alike    84              79    66
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

// Beyond this many a launch is not shared further.
constexpr size_t most_threads = 256;
// Of each thread. More pieces even out what busy neighbours take away; fewer cost less to take: some 20 ns each.
constexpr size_t pieces_per_share = 8;
// How long a worker that has nothing to do stays awake, and how long in a crowd, where it would use up its turn. Waking
// one costs the caller 2 us, and on a virtual machine it comes 0.4 ms late: a product of 340 us took 530.
constexpr clock::duration awake_time = 3ms, awake_time_in_crowd = 200us;
// A worker gives its processor away between two pieces before the system takes it away in the middle of one, where the
// caller would have to wait for it. A scheduler's time slice is 3 ms or so: with 3 ms here the caller waited ten times
// as long, with 0.5 ms the worker had half as many pieces.
constexpr auto turn_time = 1500us;
// A thread that finds this much time gone between two pieces was put aside.
constexpr auto put_aside_time = 500us;
// How long the caller, once it was put aside itself, counts as crowded.
constexpr auto crowded_time = 10ms;
// How often the caller looks whether it was put aside.
constexpr auto look_time = 1ms;
// The caller's wait for a piece in other hands: this many looks at once, then one each nap. A sleeping caller leaves
// its processor to the thread that it waits for; yielding it does not, where that thread waits for another processor.
constexpr int looks_before_nap = 2000;
constexpr auto nap_time = 50us;

void relax() {
#if defined(__SSE2__)
  __builtin_ia32_pause();
#endif
}

// What is left of a thread's share of a launch: the pieces [next, end). Aligned as a word, or Clang calls a library for
// each of its changes.
struct alignas(uint64_t) share_left {
  uint32_t launch;
  uint16_t next, end;
};

struct alignas(64) slot {
  std::atomic<share_left> left{share_left{0, 0, 0}};
  std::atomic<int> asleep{0};
};
static_assert(std::atomic<share_left>::is_always_lock_free);
static_assert(most_threads * pieces_per_share <= UINT16_MAX);

// What a thread needs to know of a launch once it has a piece of it; the caller changes it only between launches.
struct shared_launch {
  void (*run)(void* context, size_t begin, size_t end);
  void* context;
  size_t count, pieces;

  void all() const { run(context, 0, count); }
  void piece(size_t i) const { run(context, count * i / pieces, count * (i + 1) / pieces); }
};

// Keeps a worker off the caller's processor, where the system likes to wake it: while one of them runs there the other
// waits, and both are idle on the others.
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

// Tells when a worker had better let others run.
class turn {
 public:
  bool over() {
    const auto now = clock::now();
    if (now - last_ > put_aside_time) start_ = now;
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

// Whether the caller itself is put aside now and then: two busy neighbours on two processors. Then workers don't give
// their turn away, which would only make them miss the caller's: 50 instead of 45 tokens per second.
class crowd {
 public:
  bool around() {
    const auto now = clock::now();
    if (now - looked_ > look_time) {
      rusage usage;
      getrusage(RUSAGE_THREAD, &usage);
      if (usage.ru_nivcsw != put_aside_) until_ = now + crowded_time;
      put_aside_ = usage.ru_nivcsw;
      looked_ = now;
    }
    return now < until_;
  }

 private:
  clock::time_point looked_, until_;
  long put_aside_ = 0;
};

class pool {
 public:
  void share(size_t threads, const shared_launch& launch) {
    if (busy_.exchange(true, std::memory_order_acquire)) return launch.all();
    threads = std::min(threads, with_workers(threads - 1) + 1);
    deal(threads, launch);
    const size_t mine = take(0, number_, [](size_t&) {});
    wait_for(launch_.pieces - mine);
    busy_.store(false, std::memory_order_release);
  }

 private:
  // Starts workers until there are `wanted`, if the system lets it; gives their number.
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
    launch_.pieces = std::min(launch.count, pieces_per_share * threads);
    shares_.store(threads, std::memory_order_relaxed);
    caller_processor_.store(sched_getcpu(), std::memory_order_relaxed);
    crowded_.store(others.around(), std::memory_order_relaxed);
    done_.store(0, std::memory_order_relaxed);
    ++number_;
    // The workers' shares first, so that they begin while the caller is still dealing.
    for (size_t t = threads; t-- > 0;) {
      const auto begin = static_cast<uint16_t>(launch_.pieces * t / threads);
      const auto end = static_cast<uint16_t>(launch_.pieces * (t + 1) / threads);
      slots_[t].left.store({number_, begin, end});
      if (slots_[t].asleep.load()) wake(slots_[t]);
    }
  }

  // Runs the pieces of launch `number` that nobody has taken yet, those of share `self` first; gives how many.
  // `between(count)` runs after each.
  template <typename Between>
  size_t take(size_t self, uint32_t number, Between between) {
    size_t taken = 0;
    const size_t shares = shares_.load(std::memory_order_relaxed);
    for (size_t k = 0; k < shares; ++k) {
      auto& left = slots_[(self + k) % shares].left;
      share_left seen = left.load(std::memory_order_acquire);
      while (seen.launch == number && seen.next < seen.end) {
        const share_left rest{number, static_cast<uint16_t>(seen.next + 1), seen.end};
        // Succeeds only while the launch goes on, which it then does until this piece is counted in done_.
        if (left.compare_exchange_weak(seen, rest, std::memory_order_acq_rel, std::memory_order_acquire)) {
          launch_.piece(seen.next);
          between(++taken);
          seen = left.load(std::memory_order_acquire);
        }
      }
    }
    return taken;
  }

  void wait_for(size_t pieces) {
    for (int looks = 0; done_.load(std::memory_order_acquire) < pieces; ++looks) {
      if (looks < looks_before_nap) {
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
    for (unsigned looks = 0;; ++looks) {
      if (const uint32_t now = mine.left.load(std::memory_order_acquire).launch; now != number) {
        number = now;
        where.keep_off(caller_processor_.load(std::memory_order_relaxed));
        size_t taken = take(self, number, [&](size_t& taken) {
          if (!crowded_.load(std::memory_order_relaxed) && my_turn.over()) {
            count_done(taken);  // whoever yields has nothing in his hands
            my_turn.yield();
          }
        });
        count_done(taken);
        idle_since = clock::now();
      } else if (looks % 32 == 0 && clock::now() - idle_since > patience()) {
        sleep(mine, number);
        idle_since = clock::now();
      } else {
        relax();
      }
    }
  }

  // Until the share of another launch than `number` is dealt. Between the two stores and the two loads of deal() and
  // sleep() lies one order, so that one of the two sees what the other has done.
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
  alignas(64) std::atomic<size_t> done_{0};  // pieces of the workers
  slot slots_[most_threads];
};

// There before any thread is: a child that was forked while another thread made it would wait for that thread forever.
constinit pool the_pool;
static_assert(std::is_trivially_destructible_v<pool>);  // workers may look at it until the process is gone

// A child has no workers, and the launch of another thread may have been under way. It starts anew.
[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, [] { new (&the_pool) pool; });

}  // namespace

void share(size_t count, int threads, void (*run)(void* context, size_t begin, size_t end), void* context) {
  const size_t most = std::min({static_cast<size_t>(threads), count, most_threads});
  const shared_launch launch{run, context, count, 1};
  if (most < 2) return launch.all();
  bound_openmp_spinning();
  the_pool.share(most, launch);
}

}  // namespace sycl::detail
