// local_accessor: a place in the local memory of the work-group that the calling thread runs.
#pragma once

#include <cstddef>

#include "ext.hpp"
#include "range.hpp"

namespace sycl {

class handler;

namespace detail {
// The work-group of this thread: where its local memory starts. One for all modules of the process.
extern ORRERY_SYCL_API constinit thread_local char* local_memory;
}  // namespace detail

template <typename T, int D = 1>
class local_accessor {
 public:
  local_accessor() = default;
  local_accessor(range<D> size, handler& h);
  size_t size() const { return size_; }
  T* get_pointer() const { return reinterpret_cast<T*>(detail::local_memory + offset_); }
  T& operator[](size_t i) const { return get_pointer()[i]; }

 private:
  size_t offset_ = 0, size_ = 0;
};

}  // namespace sycl
