// The integer divider and the offset calculators, for tests/test_offset_calculator.py.
#include <ATen/TensorIterator.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <torch/csrc/utils/pybind.h>

#include <cstdint>
#include <vector>

#include "includes/OffsetCalculator.h"
#include "native_test.h"

namespace {

using divider = orrery::IntDivider<uint32_t>;

// Quotients and remainders.
std::vector<std::pair<uint32_t, uint32_t>> divided(uint32_t divisor, const std::vector<uint32_t>& dividends) {
  const divider by(divisor);
  std::vector<std::pair<uint32_t, uint32_t>> r;
  for (uint32_t n : dividends) {
    const auto [q, m] = by.divmod(n);
    r.emplace_back(q, m);
  }
  return r;
}

bool divides(const divider& by, uint32_t n) {
  const auto [q, m] = by.divmod(n);
  return q == n / by.divisor && m == n % by.divisor && by.div(n) == q && by.mod(n) == m;
}

// The first divisor of the range that divides some dividend wrongly, 0 if none does. Dividends are those around the
// multiples of the divisor at both ends of the 32 bits and at 2^31, where a sum of 32 bits would overflow.
uint64_t first_wrong_divisor(uint64_t begin, uint64_t end, uint64_t step) {
  for (uint64_t d = begin; d < end; d += step) {
    const divider by(static_cast<uint32_t>(d));
    for (uint64_t near : {uint64_t(0), uint64_t(1) << 31, (uint64_t(1) << 32) - 1}) {
      const uint64_t multiple = near / d * d;
      for (uint64_t n : {multiple - d, multiple, multiple + d}) {
        for (uint32_t by_one : {0u, 1u, ~0u}) {
          if (!divides(by, static_cast<uint32_t>(n) + by_one)) return d;
        }
      }
      if (!divides(by, static_cast<uint32_t>(near)) || !divides(by, static_cast<uint32_t>(near - 1))) return d;
    }
  }
  return 0;
}

template <int N>
std::vector<std::vector<uint32_t>> offsets_of(const at::TensorIterator& iter, const std::vector<uint32_t>& indexes) {
  const auto at = orrery::make_element_offset_calculator<N>(iter);
  std::vector<std::vector<uint32_t>> all;
  for (uint32_t i : indexes) {
    const auto offsets = at.offsets(i);
    all.emplace_back(offsets.begin(), offsets.end());
  }
  return all;
}

// Element offsets in `count` tensors, the first an output; 1 is an input alone.
std::vector<std::vector<uint32_t>> offsets(int count, const std::vector<at::Tensor>& tensors,
                                           const std::vector<uint32_t>& indexes) {
  at::TensorIteratorConfig config;
  config.enforce_linear_iteration().resize_outputs(false);
  for (size_t t = 0; t < tensors.size(); ++t) {
    t == 0 && count > 1 ? config.add_owned_output(tensors[t]) : config.add_owned_const_input(tensors[t]);
  }
  const at::TensorIterator iter = config.build();
  return count == 1   ? offsets_of<1>(iter, indexes)
         : count == 2 ? offsets_of<2>(iter, indexes)
                      : offsets_of<4>(iter, indexes);
}

bool has_runs_of(const at::Tensor& tensor, uint32_t length) {
  at::TensorIteratorConfig config;
  config.enforce_linear_iteration().add_owned_const_input(tensor);
  const at::TensorIterator iter = config.build();
  return orrery::make_element_offset_calculator<1>(iter).has_runs_of(length);
}

}  // namespace

void bind_offset_calculator(pybind11::module_& m) {
  m.def("divided", divided);
  m.def("divider", [](uint32_t d) {
    const divider by(d);
    return std::vector<uint32_t>{by.divisor, by.m1, by.shift};
  });
  m.def("first_wrong_divisor", first_wrong_divisor);
  m.def("offsets", offsets);
  m.def("has_runs_of", has_runs_of);
}
