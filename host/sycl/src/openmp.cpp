// PyTorch's CPU operators run on GNU OpenMP's threads, which stay awake for 3 ms and more after each parallel region,
// and at each barrier inside one. Beside the threads of a launch they would take each other's processors.
#include "openmp.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>

// From GNU OpenMP's own interface. A compiler's pragma may ask for another library, and a parallel region without a
// body is removed.
extern "C" {
int omp_get_num_procs();
void GOMP_parallel(void (*body)(void*), void* data, unsigned threads, unsigned flags);
}

namespace sycl::detail {

// The library reads its environment when it is loaded, before this code is there to change it. But it spins for 1 us
// only while it manages more threads than there are processors. So one team of that many is made and kept, asleep.
// The first caller makes it; others do not wait, since after a fork they might wait for a thread that is not there.
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
