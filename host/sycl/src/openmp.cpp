// PyTorch's CPU operators run on GNU OpenMP's threads, which spin for 3 ms or more after each parallel region and at
// each barrier inside one. They and the threads of a launch would take processors from each other.
#include "openmp.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>

// GNU OpenMP's own entry points: a compiler's pragma may call another library, and an empty parallel region is
// optimised away.
extern "C" {
int omp_get_num_procs();
void GOMP_parallel(void (*body)(void*), void* data, unsigned threads, unsigned flags);
}

namespace sycl::detail {

// The library reads its environment when it is loaded, before this code could change it. But it spins for only 1 us
// while it manages more threads than there are processors, so one such team is made and kept, asleep. The first caller
// makes it. Others do not wait for it: after a fork the thread that makes it may not exist.
void bound_openmp_spinning() {
  static constinit std::atomic<bool> begun{false};
  if (begun.load(std::memory_order_relaxed) || begun.exchange(true)) return;
  if (std::getenv("OMP_WAIT_POLICY") || std::getenv("GOMP_SPINCOUNT")) return;
  std::promise<void> made;
  std::future<void> is_made = made.get_future();
  try {
    std::thread([made = std::move(made)]() mutable {
      GOMP_parallel([](void*) {}, nullptr, static_cast<unsigned>(omp_get_num_procs()) + 1, 0);
      made.set_value();
      for (;;) pause();
    }).detach();
  } catch (const std::system_error&) {
    return;
  }
  is_made.wait();
}

}  // namespace sycl::detail
