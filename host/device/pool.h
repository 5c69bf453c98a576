// Blocks of host pages with lazily committed slack behind them, kept for reuse.
#pragma once

#include <c10/core/CachingDeviceAllocator.h>

#include <array>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace orrery::host {

struct block {
  char* data;
  size_t capacity;  // bytes before the slack
  size_t requested;
  void* mapping;
  size_t mapped;
  c10::DeviceIndex device;
  block* next_free = nullptr;
};

// All devices share one pool: their memory is the same, only the statistics differ.
class pool {
 public:
  pool();

  // Memory of at least that size, or nullptr if the host has no more.
  block* take(size_t bytes, c10::DeviceIndex device);
  void give_back(block* used) noexcept;
  // The block that starts there, or nullptr for memory that did not come from here.
  block* find(void* data);
  void release_free();
  // Bytes that can still be mapped besides the free blocks, and the total.
  std::pair<size_t, size_t> room();

  c10::CachingDeviceAllocator::DeviceStats stats(c10::DeviceIndex device);
  void reset_peak(c10::DeviceIndex device);
  void reset_accumulated(c10::DeviceIndex device);

 private:
  using device_stats = c10::CachingDeviceAllocator::DeviceStats;

  device_stats& stats_of(c10::DeviceIndex device);
  block* take_free(size_t capacity, c10::DeviceIndex device);
  block* take_new(size_t capacity, c10::DeviceIndex device);
  block* map_new(size_t capacity, c10::DeviceIndex device);
  std::pair<size_t, size_t> room_locked() const;
  void release_free_locked();
  // Statistics of the blocks that a device holds, in use or free.
  void count_in(const block& b);
  void count_out(const block& b);

  std::mutex mutex_;
  std::unordered_map<void*, block*> blocks_;  // all, by address
  std::array<block*, 256> free_{};            // lists, by class_of their capacity
  size_t free_bytes_ = 0;
  size_t held_bytes_ = 0;            // of all blocks
  size_t unmeasured_bytes_ = 0;      // mapped since the host's memory was last measured
  std::vector<device_stats> stats_;  // without the numbers that stats() fills in
};

}  // namespace orrery::host
