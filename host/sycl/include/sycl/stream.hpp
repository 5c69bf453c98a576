// stream: accepted but silent, since no kernel of this system writes to one.
#pragma once

#include <cstddef>

namespace sycl {

class handler;

class stream {
 public:
  stream(size_t total_size, size_t statement_size, handler&) : total_(total_size), statement_(statement_size) {}
  size_t size() const { return total_; }
  size_t get_work_item_buffer_size() const { return statement_; }

 private:
  size_t total_, statement_;
};

}  // namespace sycl
