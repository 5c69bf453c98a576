// Kernels that let tests/host/test_sycl_*.py look at the host's SYCL: each returns what its work-items saw.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <sycl/sycl.hpp>
#include <thread>
#include <vector>

#include "includes/item.h"
#include "native_test.h"

namespace py = pybind11;

namespace {

using sizes = std::vector<size_t>;

template <int D>
sycl::range<D> as_range(const sizes& n) {
  sycl::detail::index<D> r;
  for (int d = 0; d < D; ++d) r.at[d] = n.at(d);
  return sycl::range<D>(r);
}

template <typename F>
auto with_dims(size_t dims, F f) {
  switch (dims) {
    case 1:
      return f(std::integral_constant<int, 1>());
    case 2:
      return f(std::integral_constant<int, 2>());
    case 3:
      return f(std::integral_constant<int, 3>());
  }
  throw std::invalid_argument("1 to 3 dimensions");
}

sycl::queue queue_of(int device = 0) { return sycl::ext::orrery::make_queue(device); }

std::string name_of(const std::error_code& code) {
  if (code == sycl::errc::kernel) return "kernel";
  if (code == sycl::errc::nd_range) return "nd_range";
  if (code == sycl::errc::invalid) return "invalid";
  if (code == sycl::errc::memory_allocation) return "memory_allocation";
  return "another";
}

// "code: text" of the sycl::exception that `f` throws, "" if it throws none.
template <typename F>
std::string error_of(F f) {
  try {
    f();
  } catch (const sycl::exception& e) {
    return name_of(e.code()) + ": " + e.what();
  }
  return "";
}

void check_usable(sycl::queue& queue) {
  int sum = 0;
  queue.submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({4}, {4}), [&](sycl::nd_item<1> it) {
      sycl::group_barrier(it.get_group());
      sum += static_cast<int>(it.get_local_id(0));
    });
  });
  if (sum != 6) throw std::runtime_error("the queue is unusable after an exception");
}

// One row per work-item: group, local and global id in each dimension, then local, group and global linear id.
std::vector<sizes> item_ids(const sizes& global, const sizes& local) {
  return with_dims(global.size(), [&](auto dims) {
    constexpr int D = dims;
    const sycl::nd_range<D> ranges(as_range<D>(global), as_range<D>(local));
    std::vector<sizes> rows(ranges.get_global_range().size());
    queue_of().submit([&](sycl::handler& h) {
      h.parallel_for(ranges, [&](sycl::nd_item<D> it) {
        sizes row;
        for (int d = 0; d < D; ++d) row.push_back(it.get_group(d));
        for (int d = 0; d < D; ++d) row.push_back(it.get_local_id()[d]);
        for (int d = 0; d < D; ++d) row.push_back(it.get_global_id(d));
        row.insert(row.end(), {it.get_local_linear_id(), it.get_group_linear_id(), it.get_global_linear_id()});
        for (int d = 0; d < D; ++d) row.push_back(it.get_group_range(d));
        for (int d = 0; d < D; ++d) row.push_back(it.get_local_range(d));
        rows.at(it.get_global_linear_id()) = row;
      });
    });
    return rows;
  });
}

std::vector<sizes> range_ids(const sizes& global) {
  return with_dims(global.size(), [&](auto dims) {
    constexpr int D = dims;
    const auto range = as_range<D>(global);
    std::vector<sizes> rows(range.size());
    queue_of().submit([&](sycl::handler& h) {
      h.parallel_for(range, [&](sycl::item<D> it) {
        size_t linear = 0;
        for (int d = 0; d < D; ++d) linear = linear * range[d] + it.get_id(d);
        const auto id = it.get_id();
        rows.at(linear) = sizes(array_of(id).begin(), array_of(id).end());
      });
    });
    return rows;
  });
}

// First lanes' ids as a kernel generic over its item sees them; one row a strand.
template <int Lanes>
std::vector<sizes> lane_ids_of(const sizes& global, const sizes& local) {
  return with_dims(global.size(), [&](auto dims) {
    constexpr int D = dims;
    const sycl::nd_range<D> ranges(as_range<D>(global), as_range<D>(local));
    const size_t strands = ranges.get_local_range().size() / Lanes;
    std::vector<sizes> rows(ranges.get_group_range().size() * strands);
    queue_of().submit([&](sycl::handler& h) {
      h.parallel_for_lanes<Lanes, Lanes>(ranges, [&](const auto& item) {
        size_t group = 0;
        for (int d = 0; d < D; ++d) group = group * item.group_range(d) + item.group(d);
        sizes row;
        for (int d = 0; d < D; ++d) row.push_back(item.group(d));
        for (int d = 0; d < D; ++d) row.push_back(item.local(d));
        row.push_back(item.local_linear());
        rows.at(group * strands + item.local_linear() / Lanes) = row;
      });
    });
    return rows;
  });
}

std::vector<sizes> lane_ids(int lanes, const sizes& global, const sizes& local) {
  switch (lanes) {
    case 1:
      return lane_ids_of<1>(global, local);
    case 8:
      return lane_ids_of<8>(global, local);
    case 16:
      return lane_ids_of<16>(global, local);
    case 32:
      return lane_ids_of<32>(global, local);
  }
  throw std::invalid_argument("1, 8, 16 or 32 lanes");
}

// `rounds` times: put a value into local memory, wait, take the right neighbour's and add 1. Without the barrier the
// result depends on the order of the strands.
std::vector<int> pass_around(size_t groups, size_t local, int rounds) {
  std::vector<int> out(groups * local);
  queue_of().submit([&](sycl::handler& h) {
    sycl::local_accessor<char> odd(sycl::range<1>(3), h);  // the next accessor is aligned all the same
    sycl::local_accessor<int> slot(sycl::range<1>(local), h);
    h.parallel_for(sycl::nd_range<1>({groups * local}, {local}), [&, odd, slot](sycl::nd_item<1> it) {
      const size_t l = it.get_local_id(0);
      int value = static_cast<int>(it.get_global_id(0));
      for (int r = 0; r < rounds; ++r) {
        slot[l] = value;
        odd[l % 3] = 1;
        sycl::group_barrier(it.get_group());
        value = slot[(l + 1) % local] + 1;
        sycl::group_barrier(it.get_group());
      }
      out[it.get_global_id(0)] = value;
    });
  });
  return out;
}

// What local memory holds when a group starts, as bytes; each group then fills it with 1.
std::vector<int> local_memory_before(size_t groups, size_t bytes) {
  std::vector<int> out(groups * bytes);
  queue_of().submit([&](sycl::handler& h) {
    sycl::local_accessor<uint8_t> memory(sycl::range<1>(bytes), h);
    h.parallel_for(sycl::nd_range<1>({groups}, {1}), [&, memory](sycl::nd_item<1> it) {
      for (size_t i = 0; i < bytes; ++i) out[it.get_group(0) * bytes + i] = memory[i];
      for (size_t i = 0; i < bytes; ++i) memory[i] = 1;
    });
  });
  return out;
}

// 1 for each accessor whose start is a multiple of 64 bytes and lies behind the one before.
std::vector<bool> local_memory_places() {
  std::vector<bool> out(3);
  queue_of().submit([&](sycl::handler& h) {
    sycl::local_accessor<char> a(sycl::range<1>(5), h);
    sycl::local_accessor<double> b(sycl::range<1>(3), h);
    sycl::local_accessor<float> c(sycl::range<1>(70), h);
    h.parallel_for(sycl::nd_range<1>({1}, {1}), [&, a, b, c](sycl::nd_item<1>) {
      const auto at = [](const void* p) { return reinterpret_cast<uintptr_t>(p); };
      out[0] = at(&a[0]) % 64 == 0;
      out[1] = at(&b[0]) % 64 == 0 && at(&b[0]) > at(&a[4]);
      out[2] = at(&c[0]) % 64 == 0 && at(&c[0]) > at(&b[2]);
    });
  });
  return out;
}

// A work-item's place in its group, if the work-items of a sub-group of 16 stand in the order of its lanes.
size_t place_by_lane(const sycl::sub_group& sg) { return 16 * sg.get_group_linear_id() + sg.get_local_linear_id(); }

// Sub-group sizes and the shuffled values, in the standard's form (sub-groups of 16).
template <typename T>
std::vector<T> shuffled(const std::string& kind, size_t local, const std::vector<T>& values, size_t argument) {
  std::vector<T> out(values.size());
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({values.size()}, {local}), [&](sycl::nd_item<1> it) {
      const auto sg = it.get_sub_group();
      const size_t g = it.get_group(0) * local + place_by_lane(sg);
      if (kind == "xor") out[g] = sycl::permute_group_by_xor(sg, values[g], argument);
      if (kind == "select") {
        out[g] =
            sycl::select_from_group(sg, values[g], (sg.get_local_linear_id() + argument) % sg.get_local_linear_range());
      }
      if (kind == "left") out[g] = sycl::shift_group_left(sg, values[g], static_cast<uint32_t>(argument));
      if (kind == "size") out[g] = static_cast<T>(sg.get_local_linear_range());
      if (kind == "butterfly") {
        T sum = values[g];
        for (size_t bits = 8; bits >= 1; bits /= 2) sum += sycl::permute_group_by_xor(sg, sum, bits);
        out[g] = sum;
      }
    });
  });
  return out;
}

// The group's sum as each of its work-items has it, twice: shuffles of one sub-group come between.
std::vector<float> group_sums(const std::vector<float>& values, size_t local) {
  std::vector<float> out(2 * values.size());
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({values.size()}, {local}), [&](sycl::nd_item<1> it) {
      const size_t i = it.get_global_id(0);
      out[2 * i] = sycl::reduce_over_group(it.get_group(), values[i], sycl::plus<float>());
      const auto sg = it.get_sub_group();
      const float own =
          sg.get_group_linear_id() == 0 ? sycl::select_from_group(sg, values[i], sg.get_local_linear_id()) : values[i];
      out[2 * i + 1] = sycl::reduce_over_group(it.get_group(), own, sycl::plus<float>());
    });
  });
  return out;
}

// Even sub-groups exchange doubles while odd ones exchange bytes, `rounds` times.
std::vector<double> shuffle_two_types(size_t local, int rounds) {
  std::vector<double> out(local);
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({local}, {local}), [&](sycl::nd_item<1> it) {
      const auto sg = it.get_sub_group();
      const size_t l = place_by_lane(sg), next = (sg.get_local_linear_id() + 1) % sg.get_local_linear_range();
      double wide = static_cast<double>(l);
      uint8_t byte = static_cast<uint8_t>(l);
      for (int r = 0; r < rounds; ++r) {
        if (l / 16 % 2 == 0)
          wide = sycl::select_from_group(sg, wide, next);
        else
          byte = sycl::select_from_group(sg, byte, next);
      }
      out[l] = l / 16 % 2 == 0 ? wide : byte;
    });
  });
  return out;
}

// Work-items in `away` end before the barrier; the others pass it and write 1.
std::vector<int> some_end(size_t local, const std::vector<bool>& away) {
  std::vector<int> out(away.size());
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for_lanes<1, 1>(sycl::nd_range<1>({away.size()}, {local}), [&](const auto& item) {
      if (away[item.global(0)]) return;
      item.barrier();
      out[item.global(0)] = 1;
    });
  });
  return out;
}

struct throwing_kernel {
  size_t at;
  const std::string* what;
  std::vector<int>* started;
  bool before_barrier;
  template <typename Item>
  void operator()(const Item& item) const {
    (*started)[item.global(0)] = 1;
    if (!before_barrier) item.barrier();
    if (item.global(0) == at) {
      if (*what == "number") throw 7;
      throw std::runtime_error(*what);
    }
    item.barrier();
    (*started)[item.global(0)] = 2;
  }
};

struct throwing_kernel_without_barriers : throwing_kernel {
  static constexpr bool has_barriers = false;
  template <typename Item>
  void operator()(const Item& item) const {
    if (item.global(0) == at) throw std::runtime_error(*what);
  }
};

struct lying_kernel {
  static constexpr bool has_barriers = false;
  template <typename Item>
  void operator()(const Item& item) const {
    item.barrier();
  }
};

// The error and how far each work-item came; then the same queue runs another kernel.
std::pair<std::string, std::vector<int>> kernel_throws(const std::string& form, const std::string& what, size_t global,
                                                       size_t local, size_t at) {
  auto queue = queue_of();
  std::vector<int> started(global);
  const sycl::nd_range<1> ranges({global}, {local});
  const throwing_kernel kernel{at, &what, &started, form == "before"};
  const std::string error = error_of([&] {
    queue.submit([&](sycl::handler& h) {
      if (form == "no barriers")
        h.parallel_for_lanes<1, 1>(ranges, throwing_kernel_without_barriers{kernel});
      else if (form == "lying")
        h.parallel_for_lanes<1, 1>(ranges, lying_kernel{});
      else
        h.parallel_for_lanes<1, 1>(ranges, kernel);
    });
  });
  check_usable(queue);
  return {error, started};
}

std::string range_error(const sizes& global, const sizes& local, int lanes) {
  return error_of([&] {
    with_dims(global.size(), [&](auto dims) {
      constexpr int D = dims;
      const sycl::nd_range<D> ranges(as_range<D>(global), as_range<D>(local));
      queue_of().submit([&](sycl::handler& h) {
        if (lanes == 16)
          h.parallel_for_lanes<16, 16>(ranges, [](const auto&) {});
        else
          h.parallel_for(ranges, [](sycl::nd_item<D>) {});
      });
    });
  });
}

// The last strand of the last group launches a kernel on a queue of its own, after a barrier if `local` > 1. Returns
// the error, and whether the inner kernel ran.
template <int Lanes>
std::pair<std::string, bool> launch_inside(size_t groups, size_t local) {
  auto queue = queue_of();
  std::atomic<bool> ran{false};
  const std::string error = error_of([&] {
    queue.submit([&](sycl::handler& h) {
      h.parallel_for_lanes<Lanes, Lanes>(sycl::nd_range<1>({groups * local}, {local}), [&](const auto& item) {
        item.barrier();
        if (item.global(0) + Lanes < groups * local) return;
        queue_of().submit(
            [&](sycl::handler& inner) { inner.parallel_for(sycl::range<1>(1), [&](sycl::item<1>) { ran = true; }); });
      });
    });
  });
  check_usable(queue);
  return {error, ran.load()};
}

std::pair<std::string, bool> launch_from_kernel(int lanes, size_t groups, size_t local) {
  return lanes == 16 ? launch_inside<16>(groups, local) : launch_inside<1>(groups, local);
}

// The error of a command group with that many kernels, and how many of them ran.
std::pair<std::string, int> kernels_in_a_group(int count) {
  auto queue = queue_of();
  int ran = 0;
  const std::string error = error_of([&] {
    queue.submit([&](sycl::handler& h) {
      for (int i = 0; i < count; ++i) {
        if (i % 2 == 0)
          h.parallel_for(sycl::nd_range<1>({1}, {1}), [&](sycl::nd_item<1>) { ++ran; });
        else
          h.parallel_for(sycl::range<1>(1), [&](sycl::item<1>) { ++ran; });
      }
    });
  });
  check_usable(queue);
  return {error, ran};
}

// The error of a command group with one local accessor for each of the sizes: ints in a range of any dimensions.
std::string local_memory_error(const std::vector<sizes>& all) {
  return error_of([&] {
    queue_of().submit([&](sycl::handler& h) {
      for (const sizes& size : all) {
        with_dims(size.size(), [&](auto dims) { sycl::local_accessor<int, dims>(as_range<dims>(size), h); });
      }
      h.parallel_for(sycl::range<1>(1), [](sycl::item<1>) {});
    });
  });
}

// The error of xor shuffles in sub-groups of 16 of one-work-item strands, whose groups are `local` work-items.
std::string xor_lane_error(size_t local, size_t bits) {
  return error_of([&] {
    queue_of().submit([&](sycl::handler& h) {
      h.parallel_for_lanes<1, 16>(sycl::nd_range<1>({local}, {local}),
                                  [&](const auto& item) { item.template xor_lane<16>(1.0, bits); });
    });
  });
}

template <typename T, int SG, int WG>
struct sum_kernel {
  static constexpr int sub_group_size = SG;
  static constexpr bool has_barriers = false;
  const T* in;  // two rows of WG values a group
  T* out;
  sycl::local_accessor<T> partial;

  template <typename Item>
  void operator()(const Item& item) const {
    constexpr int N = Item::lanes;
    orrery::simd<T, N> acc[2];
    for (int r = 0; r < 2; ++r) {
      const auto x = orrery::simd<T, N>::load(in + (item.group() * 2 + r) * WG + item.local_linear());
      acc[r] = x * x + x;
    }
    orrery::tree_sum<WG>(item, &partial[0], acc, [&](int r, T total) { out[item.group() * 2 + r] = total; });
  }
};

template <typename T, int SG, int WG>
void tree_sums_of(bool scalar, py::buffer_info& in, py::buffer_info& out) {
  const size_t groups = in.size / (2 * WG);
  const sycl::nd_range<1> ranges({groups * WG}, {WG});
  queue_of().submit([&](sycl::handler& h) {
    const sum_kernel<T, SG, WG> kernel{static_cast<const T*>(in.ptr), static_cast<T*>(out.ptr),
                                       sycl::local_accessor<T>(sycl::range<1>(2 * WG), h)};
    if (scalar)
      h.parallel_for_lanes<1, SG>(ranges, kernel);
    else
      h.parallel_for_lanes<SG, SG>(ranges, kernel);
  });
}

template <typename T>
void tree_sums_in(int sg, int wg, bool scalar, py::buffer_info& in, py::buffer_info& out) {
  switch (sg * 1000 + wg) {
    case 8008:
      return tree_sums_of<T, 8, 8>(scalar, in, out);
    case 8032:
      return tree_sums_of<T, 8, 32>(scalar, in, out);
    case 16016:
      return tree_sums_of<T, 16, 16>(scalar, in, out);
    case 16064:
      return tree_sums_of<T, 16, 64>(scalar, in, out);
    case 32032:
      return tree_sums_of<T, 32, 32>(scalar, in, out);
    case 32128:
      return tree_sums_of<T, 32, 128>(scalar, in, out);
  }
  throw std::invalid_argument("no such sub-group and work-group size");
}

void tree_sums(const std::string& type, int sg, int wg, bool scalar, py::buffer in_buffer, py::buffer out_buffer) {
  auto in = in_buffer.request(), out = out_buffer.request(true);
  if (out.size != in.size / wg) throw std::invalid_argument("one result per row of WG values");
  if (type == "half")
    tree_sums_in<c10::Half>(sg, wg, scalar, in, out);
  else if (type == "bfloat16")
    tree_sums_in<c10::BFloat16>(sg, wg, scalar, in, out);
  else if (type == "double")
    tree_sums_in<double>(sg, wg, scalar, in, out);
  else
    tree_sums_in<float>(sg, wg, scalar, in, out);
}

// The order in which one group's strands, then a launch's groups, came to write (groups only with one thread).
std::vector<int> strand_order(size_t strands, int rounds) {
  std::vector<int> order;
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({strands}, {strands}), [&](sycl::nd_item<1> it) {
      for (int r = 0; r < rounds; ++r) {
        order.push_back(static_cast<int>(it.get_local_id(0)));
        sycl::group_barrier(it.get_group());
      }
    });
  });
  return order;
}

std::vector<int> group_order(size_t groups) {
  std::vector<int> order;
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({groups}, {1}),
                   [&](sycl::nd_item<1> it) { order.push_back(static_cast<int>(it.get_group(0))); });
  });
  return order;
}

// Takes up to `at_once` neighbouring groups, and counts how often it ran each, alone and together.
struct group_taker {
  size_t at_once;
  std::atomic<int>*alone, *together;

  template <typename Item>
  void operator()(const Item& item) const {
    ++alone[item.group(0) * item.group_range(1) + item.group(1)];
  }
  template <typename Item>
  size_t take_groups(const Item& item, size_t most) const {
    const size_t count = std::min(most, at_once), first = item.group(0) * item.group_range(1) + item.group(1);
    for (size_t i = first; i < first + count; ++i) ++together[i];
    return count;
  }
};

// How often each of 3 x `columns` groups ran alone, then how often together.
std::pair<std::vector<int>, std::vector<int>> groups_taken(size_t columns, size_t at_once) {
  std::vector<std::atomic<int>> alone(3 * columns), together(3 * columns);
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for_lanes<1, 1>(sycl::nd_range<2>({3, columns}, {1, 1}),
                               group_taker{at_once, alone.data(), together.data()});
  });
  return {{alone.begin(), alone.end()}, {together.begin(), together.end()}};
}

// How often the values shared by a launch were made, and whether each group saw them.
std::pair<int, bool> shared_once(size_t groups) {
  std::atomic<int> made{0};
  std::atomic<bool> right{true};
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for_lanes<16, 16>(sycl::nd_range<1>({groups * 16}, {16}), [&](const auto& item) {
      const float* values = item.template shared_by_launch<float>(100, [&](float* to) {
        ++made;
        for (int i = 0; i < 100; ++i) to[i] = static_cast<float>(i) + 0.5f;
      });
      for (int i = 0; i < 100; ++i) {
        if (values[i] != static_cast<float>(i) + 0.5f) right = false;
      }
    });
  });
  return {made.load(), right.load()};
}

// A kernel that asks for the values of its launch more than once: "again" from one place, "count" from one place for
// another count, "place" from two places, "group" from another place in each second group.
std::string shared_from(const std::string& form, size_t groups) {
  auto queue = queue_of();
  const std::string error = error_of([&] {
    queue.submit([&](sycl::handler& h) {
      h.parallel_for_lanes<16, 16>(sycl::nd_range<1>({groups * 16}, {16}), [&](const auto& item) {
        const auto one = [&](size_t count) {
          return item.template shared_by_launch<int>(count, [&](int* to) { std::fill_n(to, count, 1); })[count - 1];
        };
        const auto other = [&] {
          return item.template shared_by_launch<int>(8, [](int* to) { std::fill_n(to, 8, 2); })[7];
        };
        if (form == "group" && item.group() % 2 == 1) {
          if (other() != 2) throw std::runtime_error("the other place's values");
          return;
        }
        for (int i = 0; i < 2; ++i) {
          if (one(8) != 1) throw std::runtime_error("another place's values");
        }
        if (form == "count" && one(9) != 1) throw std::runtime_error("values of another count");
        if (form == "place" && other() != 2) throw std::runtime_error("the other place's values");
      });
    });
  });
  check_usable(queue);
  return error;
}

template <typename T, int N>
struct named_kernel {
  static constexpr int sub_group_size = 8;
  template <typename Item>
  void operator()(const Item&) const {}
};
template <typename T>
struct outer {
  struct plain_kernel {
    static constexpr int sub_group_size = 8;
    template <typename Item>
    void operator()(const Item&) const {}
  };
};

sycl::event launch_named(int device, const sizes& global, const sizes& local, size_t local_bytes, bool nested_name) {
  return with_dims(global.size(), [&](auto dims) {
    constexpr int D = dims;
    const sycl::nd_range<D> ranges(as_range<D>(global), as_range<D>(local));
    return queue_of(device).submit(
        [&](sycl::handler& h) {
          sycl::local_accessor<char> memory(sycl::range<1>(local_bytes), h);
          if (nested_name)
            h.parallel_for_lanes<8, 8>(ranges, outer<named_kernel<int, 2>>::plain_kernel{});
          else
            h.parallel_for_lanes<8, 8>(ranges, named_kernel<c10::Half, 16>{});
        },
        {"unit", "function", 31, 7});
  });
}

std::vector<py::dict> recording_end() {
  std::vector<py::dict> all;
  for (const auto& r : sycl::ext::orrery::recording_end()) {
    py::dict d;
    d["name"] = r.name;
    d["kernel"] = r.kernel;
    d["instance"] = r.instance;
    d["file"] = r.file;
    d["function"] = r.function;
    d["line"] = r.line;
    d["column"] = r.column;
    d["global_size"] = r.global_size;
    d["local_size"] = r.local_size;
    d["sub_group_size"] = r.sub_group_size;
    d["local_memory"] = r.local_memory;
    d["waited"] = r.waited;
    d["device"] = r.device;
    d["seconds"] = r.seconds;
    all.push_back(d);
  }
  return all;
}

// How often each group has run after `launches` launches; -1 where the count was wrong when a launch returned. Each
// eighth group takes `microseconds`.
std::vector<int> groups_run(size_t groups, int microseconds, int launches) {
  std::vector<std::atomic<int>> counts(groups);
  std::vector<int> out(groups);
  auto queue = queue_of();
  for (int n = 1; n <= launches; ++n) {
    queue.submit([&](sycl::handler& h) {
      h.parallel_for(sycl::nd_range<1>({groups}, {1}), [&](sycl::nd_item<1> it) {
        const size_t g = it.get_group(0);
        if (g % 8 == 7 && microseconds) std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        counts[g].fetch_add(1, std::memory_order_relaxed);
      });
    });
    for (size_t g = 0; g < groups; ++g) {
      if (out[g] >= 0) out[g] = counts[g].load(std::memory_order_relaxed) == n ? n : -1;
    }
  }
  return out;
}

size_t threads_of_a_launch(size_t groups) {
  std::mutex guard;
  std::set<std::thread::id> seen;
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({groups}, {1}), [&](sycl::nd_item<1>) {
      std::this_thread::sleep_for(std::chrono::microseconds(20));
      const std::lock_guard lock(guard);
      seen.insert(std::this_thread::get_id());
    });
  });
  return seen.size();
}

template <typename Condition>
bool comes_true(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// Group `at` ends only when `others` groups have run.
bool one_group_waits(size_t groups, size_t at, size_t others) {
  std::atomic<size_t> ran{0};
  bool came = false;
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({groups}, {1}), [&](sycl::nd_item<1> it) {
      if (it.get_group(0) == at) {
        came = comes_true([&] { return ran >= others; });
      } else {
        ++ran;
      }
    });
  });
  return came;
}

std::atomic<bool> held{false}, released{false};

// A launch whose groups all wait until let_go() is called.
bool hold(size_t groups) {
  held = released = false;
  std::atomic<bool> all{true};
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({groups}, {1}), [&](sycl::nd_item<1>) {
      held = true;
      if (!comes_true([] { return released.load(); })) all = false;
    });
  });
  return all;
}
bool is_held() {
  return comes_true([] { return held.load(); });
}
void let_go() { released = true; }

// The bits of half of the smallest normal number, as each group computes it.
std::vector<uint32_t> smallest_halved(size_t groups) {
  std::vector<uint32_t> out(groups);
  const volatile float x = std::numeric_limits<float>::min();
  queue_of().submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>({groups}, {1}),
                   [&](sycl::nd_item<1> it) { out[it.get_group(0)] = std::bit_cast<uint32_t>(x * 0.5f); });
  });
  return out;
}

void configure(const sycl::ext::orrery::settings& s) { sycl::ext::orrery::configure(s); }

}  // namespace

PYBIND11_MODULE(orrery_native_tests, m) {
  m.def("item_ids", &item_ids);
  m.def("range_ids", &range_ids);
  m.def("lane_ids", &lane_ids);
  m.def("pass_around", &pass_around);
  m.def("local_memory_before", &local_memory_before);
  m.def("local_memory_places", &local_memory_places);
  m.def("shuffled_float", &shuffled<float>);
  m.def("shuffled_double", &shuffled<double>);
  m.def("shuffled_int", &shuffled<int>);
  m.def("shuffle_two_types", &shuffle_two_types);
  m.def("some_end", &some_end);
  m.def("group_sums", &group_sums);
  m.def("kernel_throws", &kernel_throws);
  m.def("range_error", &range_error);
  m.def("launch_from_kernel", &launch_from_kernel);
  m.def("kernels_in_a_group", &kernels_in_a_group);
  m.def("local_memory_error", &local_memory_error);
  m.def("xor_lane_error", &xor_lane_error);
  m.def("tree_sums", &tree_sums);
  m.def("strand_order", &strand_order);
  m.def("group_order", &group_order);
  m.def("shared_once", &shared_once);
  m.def("groups_taken", &groups_taken);
  m.def("shared_from", &shared_from);
  m.def("groups_run", &groups_run, py::call_guard<py::gil_scoped_release>());
  m.def("threads_of_a_launch", &threads_of_a_launch);
  m.def("one_group_waits", &one_group_waits, py::arg("groups"), py::arg("at"), py::arg("others"));
  m.def("hold", &hold, py::call_guard<py::gil_scoped_release>());
  m.def("is_held", &is_held, py::call_guard<py::gil_scoped_release>());
  m.def("let_go", &let_go);
  m.def("smallest_halved", &smallest_halved);
  // Without the interpreter's lock, so that threads can launch at once and a fork can come during a launch.
  m.def("launch", &launch_named, py::arg("device") = 0, py::arg("global_size") = sizes{16},
        py::arg("local_size") = sizes{8}, py::arg("local_bytes") = 0, py::arg("nested_name") = false,
        py::call_guard<py::gil_scoped_release>());
  m.def("recording_begin", &sycl::ext::orrery::recording_begin);
  m.def("recording_end", &recording_end);
  m.def("record", &sycl::ext::orrery::record);
  m.def("local_mem_size", [] { return sycl::device().get_info<sycl::info::device::local_mem_size>(); });
  m.def("device_name", [] { return sycl::device().get_info<sycl::info::device::name>(); });
  m.def("max_work_group_size", [] { return sycl::device().get_info<sycl::info::device::max_work_group_size>(); });
  py::class_<sycl::event>(m, "Event").def("wait", &sycl::event::wait);
  using sycl::ext::orrery::settings;
  py::class_<settings>(m, "Settings")
      .def(py::init<const settings&>())
      .def_readwrite("device_name", &settings::device_name)
      .def_readwrite("max_work_group_size", &settings::max_work_group_size)
      .def_readwrite("device_count", &settings::device_count)
      .def_readwrite("shuffle", &settings::shuffle)
      .def_readwrite("seed", &settings::seed);
  m.def("settings_from_environment", &sycl::ext::orrery::settings_from_environment);
  m.def("configuration", [] { return sycl::ext::orrery::configuration(); });
  m.def("configure", &configure);
#ifdef ORRERY_HOST_ITEMS_SCALAR
  m.attr("scalar_items") = true;
#else
  m.attr("scalar_items") = false;
#endif
  bind_simd(m);
  bind_offset_calculator(m);
  bind_simd_verbs(m);
  bind_formats(m);
  bind_standard(m);
  bind_matrix_engine(m);
}
