// local_accessor: a place in the local memory of the work-group that the calling thread runs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ext.hpp"
#include "range.hpp"

namespace sycl {

class handler;

namespace detail {

// Where the local memory of this thread's work-group starts; null while the thread runs no kernel. All modules of the
// process share it.
extern ORRERY_SYCL_API constinit thread_local char* local_memory;

// SIZE_MAX if the product overflows, so that the check against the limit still fails.
template <int D>
size_t bytes_of(const range<D>& size, size_t element) {
  size_t bytes = element;
  for (size_t n : array_of(size)) {
    if (__builtin_mul_overflow(bytes, n, &bytes)) return SIZE_MAX;
  }
  return bytes;
}

}  // namespace detail

template <typename T, int D = 1>
class local_accessor {
 public:
  local_accessor() = default;
  local_accessor(range<D> size, handler& h);
  size_t size() const { return range_.size(); }
  T& operator[](id<D> i) const {
    size_t linear = 0;
    for (int d = 0; d < D; ++d) linear = linear * range_[d] + i[d];
    return first()[linear];
  }
  T& operator[](size_t i) const requires(D == 1) { return first()[i]; }

 private:
  T* first() const { return reinterpret_cast<T*>(detail::local_memory + offset_); }

  size_t offset_ = 0;
  range<D> range_{detail::index<D>{}};
};

}  // namespace sycl
