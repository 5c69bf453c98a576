// A program in standard SYCL 2020 alone, but for what its kernels read and write: that is the caller's memory.
#include <pybind11/stl.h>

#include <cstddef>
#include <string>
#include <sycl/sycl.hpp>
#include <vector>

#include "native_test.h"

namespace {

// The group's sum by halves in local memory. The values are doubled first, by another kernel.
std::vector<float> sums_of_groups(sycl::queue& queue, std::vector<float> values, size_t local) {
  const size_t groups = values.size() / local;
  std::vector<float> sums(groups);
  float* in = values.data();
  float* out = sums.data();
  sycl::event doubled = queue.submit([&](sycl::handler& h) {
    h.parallel_for(sycl::range<1>(values.size()), [=](sycl::item<1> it) { in[it[0]] *= 2.0f; });
  });
  doubled.wait();
  queue.submit([&](sycl::handler& h) {
    sycl::local_accessor<float> partial(sycl::range<1>(local), h);
    h.parallel_for(sycl::nd_range<1>({groups * local}, {local}), [=](sycl::nd_item<1> it) {
      const size_t l = it.get_local_id(0);
      partial[l] = in[it.get_global_id(0)];
      for (size_t s = local / 2; s >= 1; s /= 2) {
        sycl::group_barrier(it.get_group());
        if (l < s) partial[l] += partial[l + s];
      }
      if (l == 0) out[it.get_group(0)] = partial[0];
    });
  });
  queue.wait_and_throw();
  return sums;
}

// Each sub-group's sum by its lanes' exchange, as its first lane has it, in the order of the sub-groups of one group.
std::vector<float> sums_of_sub_groups(sycl::queue& queue, std::vector<float> values) {
  std::vector<float> sums(values.size());
  const float* in = values.data();
  float* out = sums.data();
  size_t count = 0;
  size_t* groups = &count;
  queue.submit([&](sycl::handler& h) {
    h.parallel_for(sycl::nd_range<1>(values.size(), values.size()), [=](sycl::nd_item<1> it) {
      const sycl::sub_group sg = it.get_sub_group();
      float sum = in[it.get_global_linear_id()];
      for (uint32_t s = sg.get_local_linear_range() / 2; s >= 1; s /= 2) sum += sycl::permute_group_by_xor(sg, sum, s);
      sycl::group_barrier(sg);
      sum = sycl::select_from_group(sg, sum, 0);
      if (sg.get_local_linear_id() == 0) out[sg.get_group_linear_id()] = sum;
      if (it.get_local_linear_id() == 0) *groups = sg.get_group_linear_range();
    });
  });
  sums.resize(count);
  return sums;
}

std::string code_of_a_bad_range(sycl::queue& queue) {
  const size_t limit = queue.get_device().get_info<sycl::info::device::max_work_group_size>();
  try {
    queue.submit([&](sycl::handler& h) {
      h.parallel_for(sycl::nd_range<2>({limit, 2}, {limit, 2}), [=](sycl::nd_item<2>) {});
    });
  } catch (const sycl::exception& e) {
    return e.code() == sycl::errc::nd_range && e.code().category() == sycl::sycl_category() ? "nd_range" : "another";
  }
  return "none";
}

}  // namespace

void bind_standard(pybind11::module_& m) {
  static sycl::queue queue;
  m.def("sums_of_groups", [](const std::vector<float>& v, size_t local) { return sums_of_groups(queue, v, local); });
  m.def("sums_of_sub_groups", [](const std::vector<float>& v) { return sums_of_sub_groups(queue, v); });
  m.def("code_of_a_bad_range", [] { return code_of_a_bad_range(queue); });
}
