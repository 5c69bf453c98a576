#include "fork.h"

#include <ATen/Parallel.h>
#include <pthread.h>

#include <atomic>
#include <vector>

namespace orrery::host {
namespace {

std::atomic<bool> in_new_child = false;

std::vector<std::mutex*>& mutexes() {
  static auto& all = *new std::vector<std::mutex*>;
  return all;
}

void before_fork() {
  for (std::mutex* mutex : mutexes()) mutex->lock();
}

void after_fork() {
  for (size_t i = mutexes().size(); i-- > 0;) mutexes()[i]->unlock();
}

void after_fork_in_child() {
  after_fork();
  in_new_child = true;
}

}  // namespace

void free_after_fork(std::mutex& mutex) {
  if (mutexes().empty()) pthread_atfork(&before_fork, &after_fork, &after_fork_in_child);
  mutexes().push_back(&mutex);
}

void begin_operation() {
  if (in_new_child.load(std::memory_order_relaxed) && in_new_child.exchange(false)) at::set_num_threads(1);
}

}  // namespace orrery::host
