// device, event, queue and the info queries in use.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "ext.hpp"

namespace sycl {

class handler;

namespace info {
namespace device {
struct name {
  using return_type = std::string;
};
struct max_work_group_size {
  using return_type = size_t;
};
struct max_compute_units {
  using return_type = uint32_t;
};
struct local_mem_size {
  using return_type = uint64_t;
};
}  // namespace device
}  // namespace info

class device {
 public:
  device() = default;
  template <typename Info>
  typename Info::return_type get_info() const;
  bool is_cpu() const { return true; }
  bool is_gpu() const { return false; }
  bool operator==(const device&) const = default;

 private:
  friend class handler;
  friend queue ext::orrery::make_queue(int index);

  int index_ = 0;
};

template <>
ORRERY_SYCL_API std::string device::get_info<info::device::name>() const;
template <>
ORRERY_SYCL_API size_t device::get_info<info::device::max_work_group_size>() const;
template <>
ORRERY_SYCL_API uint32_t device::get_info<info::device::max_compute_units>() const;
template <>
ORRERY_SYCL_API uint64_t device::get_info<info::device::local_mem_size>() const;

// Complete as soon as it exists. A wait is recorded if it is made by the thread that launched.
class event {
 public:
  event() = default;
  ORRERY_SYCL_API void wait();
  void wait_and_throw() { wait(); }

 private:
  friend class queue;
  friend void ext::orrery::record(const std::string& name, const event& e);

  explicit event(uint64_t launch) : launch_(launch) {}

  uint64_t launch_ = 0;  // its number while launches are recorded, else 0
};

class queue {
 public:
  queue() = default;
  explicit queue(const device& d) : device_(d) {}
  device get_device() const { return device_; }
  bool is_in_order() const { return true; }
  void wait() {}
  void wait_and_throw() {}
  template <typename CommandGroup>
  event submit(CommandGroup&& cgf, const ext::orrery::code_location& where = {});

 private:
  device device_;
};

}  // namespace sycl
