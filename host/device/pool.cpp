#include "pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>

#include "allocator.h"
#include "fork.h"
#include "host_memory.h"

namespace orrery::host {
namespace {

constexpr size_t page = 4096;
constexpr size_t huge_page = size_t(2) << 20;
// Free blocks are kept up to this sum, so that one step's scratch memory is not faulted in again by the next.
constexpr size_t most_free_bytes = size_t(128) << 20;
// How much memory is mapped between two measurements of what is left. One takes 0.12 ms, faulting that much in 40 ms.
constexpr size_t measured_bytes = size_t(64) << 20;
constexpr size_t small_limit = size_t(1) << 20;  // PyTorch's boundary between its small and large pool

size_t round_up(size_t n, size_t step) { return (n + step - 1) / step * step; }

// At most four sizes per doubling: few enough for reuse, and unused pages of a block are never committed.
size_t capacity_for(size_t bytes) {
  const size_t step = std::bit_floor(bytes) / 4;
  return round_up(bytes, step < page ? page : step);
}

// A number of its own for each capacity.
size_t class_of(size_t capacity) {
  const size_t exponent = std::bit_width(capacity) - 1;
  return 4 * exponent + capacity / (size_t(1) << (exponent - 2)) % 4;
}

block* map_block(size_t capacity, c10::DeviceIndex device) {
  const size_t alignment = capacity >= huge_page ? huge_page : page;
  const size_t mapped = capacity + slack_bytes + alignment - page;
  void* mapping = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) return nullptr;
  char* data = reinterpret_cast<char*>(round_up(reinterpret_cast<size_t>(mapping), alignment));
  // Huge pages for what the tensor fills, never for the slack: one touched byte there would commit 2 MiB.
  const size_t huge = capacity / huge_page * huge_page;
  if (huge) madvise(data, huge, MADV_HUGEPAGE);
  madvise(data + huge, capacity + slack_bytes - huge, MADV_NOHUGEPAGE);
  return new block{data, capacity, 0, mapping, mapped, device};
}

void unmap(block* unused) {
  munmap(unused->mapping, unused->mapped);
  delete unused;
}

size_t stat_pool(size_t capacity) {
  using c10::CachingAllocator::StatType;
  return size_t(capacity < small_limit ? StatType::SMALL_POOL : StatType::LARGE_POOL);
}

void add(c10::CachingAllocator::StatArray& stat, size_t of_pool, size_t amount) {
  stat[0].increase(amount);
  stat[of_pool].increase(amount);
}

void subtract(c10::CachingAllocator::StatArray& stat, size_t of_pool, size_t amount) {
  stat[0].decrease(amount);
  stat[of_pool].decrease(amount);
}

template <typename Function>
void for_each_stat(c10::CachingDeviceAllocator::DeviceStats& stats, Function apply) {
  for (auto* array : {&stats.allocation, &stats.segment, &stats.active, &stats.allocated_bytes, &stats.reserved_bytes,
                      &stats.active_bytes, &stats.requested_bytes})
    for (auto& stat : *array) apply(stat);
}

}  // namespace

pool::pool() { free_after_fork(mutex_); }

block* pool::take(size_t bytes, c10::DeviceIndex device) {
  const size_t capacity = capacity_for(bytes);
  const size_t of_pool = stat_pool(capacity);
  std::lock_guard lock(mutex_);
  block* taken = take_free(capacity, device);
  if (!taken) taken = take_new(capacity, device);
  auto& stats = stats_of(device);
  if (!taken) {
    ++stats.num_ooms;
    return nullptr;
  }
  taken->requested = bytes;
  add(stats.allocation, of_pool, 1);
  add(stats.allocated_bytes, of_pool, bytes);
  return taken;
}

block* pool::take_free(size_t capacity, c10::DeviceIndex device) {
  block*& first = free_[class_of(capacity)];
  if (!first) return nullptr;
  block* taken = first;
  first = taken->next_free;
  free_bytes_ -= capacity;
  if (taken->device != device) {
    count_out(*taken);
    taken->device = device;
    count_in(*taken);
  }
  return taken;
}

block* pool::take_new(size_t capacity, c10::DeviceIndex device) {
  block* taken = map_new(capacity, device);
  if (!taken) {
    ++stats_of(device).num_alloc_retries;
    release_free_locked();
    taken = map_new(capacity, device);
  }
  if (!taken) return nullptr;
  blocks_[taken->data] = taken;
  held_bytes_ += capacity;
  ++stats_of(device).num_device_alloc;
  count_in(*taken);
  return taken;
}

// Pages are committed when touched, so the system maps more than it has, and ends the process that uses it all.
block* pool::map_new(size_t capacity, c10::DeviceIndex device) {
  const size_t unmeasured = unmeasured_bytes_ + capacity;
  const bool measure = unmeasured >= measured_bytes;
  if (measure && capacity > room_locked().first) return nullptr;
  unmeasured_bytes_ = measure ? 0 : unmeasured;
  return map_block(capacity, device);
}

// Blocks count as full even if nothing has been written to them yet.
std::pair<size_t, size_t> pool::room_locked() const {
  const auto [available, total] = measure_host_memory();
  return {std::min(available, total - std::min(total, held_bytes_)), total};
}

std::pair<size_t, size_t> pool::room() {
  std::lock_guard lock(mutex_);
  return room_locked();
}

void pool::count_in(const block& b) {
  add(stats_of(b.device).reserved_bytes, stat_pool(b.capacity), b.capacity);
  add(stats_of(b.device).segment, stat_pool(b.capacity), 1);
}

void pool::count_out(const block& b) {
  subtract(stats_of(b.device).reserved_bytes, stat_pool(b.capacity), b.capacity);
  subtract(stats_of(b.device).segment, stat_pool(b.capacity), 1);
}

void pool::give_back(block* used) noexcept {
  std::lock_guard lock(mutex_);
  const size_t of_pool = stat_pool(used->capacity);
  auto& stats = stats_of(used->device);
  subtract(stats.allocation, of_pool, 1);
  subtract(stats.allocated_bytes, of_pool, used->requested);
  block*& first = free_[class_of(used->capacity)];
  used->next_free = first;
  first = used;
  free_bytes_ += used->capacity;
  // All of them: otherwise sizes that are no longer used would keep the room of those that are.
  if (free_bytes_ > most_free_bytes) release_free_locked();
}

block* pool::find(void* data) {
  std::lock_guard lock(mutex_);
  const auto found = blocks_.find(data);
  return found == blocks_.end() ? nullptr : found->second;
}

void pool::release_free() {
  std::lock_guard lock(mutex_);
  release_free_locked();
}

void pool::release_free_locked() {
  for (block*& first : free_) {
    while (block* unused = first) {
      first = unused->next_free;
      ++stats_of(unused->device).num_device_free;
      count_out(*unused);
      held_bytes_ -= unused->capacity;
      blocks_.erase(unused->data);
      unmap(unused);
    }
  }
  free_bytes_ = 0;
}

pool::device_stats& pool::stats_of(c10::DeviceIndex device) {
  if (stats_.size() <= size_t(device)) stats_.resize(device + 1);
  return stats_[device];
}

pool::device_stats pool::stats(c10::DeviceIndex device) {
  std::lock_guard lock(mutex_);
  device_stats all = stats_of(device);
  all.active = all.allocation;
  all.active_bytes = all.requested_bytes = all.allocated_bytes;
  return all;
}

void pool::reset_peak(c10::DeviceIndex device) {
  std::lock_guard lock(mutex_);
  for_each_stat(stats_of(device), [](auto& stat) { stat.reset_peak(); });
}

void pool::reset_accumulated(c10::DeviceIndex device) {
  std::lock_guard lock(mutex_);
  auto& stats = stats_of(device);
  for_each_stat(stats, [](auto& stat) { stat.reset_accumulated(); });
  stats.num_alloc_retries = stats.num_ooms = stats.num_device_alloc = stats.num_device_free = 0;
}

}  // namespace orrery::host
