// Products of a few input rows on the matrix engine: the table of instances and their launch. The kernel is in
// linear/engine/dotgrid_kernel.h, the engine's operation in includes/matrix_engine.h.
#include <ATen/ops/empty.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "includes/assertion.h"
#include "linear/engine/dotgrid.h"
#include "linear/engine/dotgrid_kernel.h"
#include "linear/launch.h"
#include "linear/operands.h"

namespace orrery {
namespace {

template <typename T, typename C, typename P, int tail, int N>
void launch_dotgrid(const linear_decision& way, const linear_operands& on) {
  constexpr int QK = matrix_engine::block;
  const uint64_t state_size = on.state_size, output_size = on.output_size;
  ORRERY_ASSERT(output_size % N == 0);
  ORRERY_ASSERT(state_size % QK == 0);
  launch_bound<dotgrid_forward_kernel<T, C, float, P, tail, N, 8>>(way, on, {"dotgrid_xpu_kernel", way.kernel});
}

// By the number of rows of the last tile: entry i is for i rows, entry 0 for 8.
using launchers = std::array<linear_launcher*, 8>;

template <typename T, typename C, typename P, int N, int... I>
constexpr launchers by_tail(std::integer_sequence<int, I...>) {
  return {launch_dotgrid < T, C, P, I == 0 ? 8 : I, N > ...};
}

struct type_row {
  c10::ScalarType type;
  launchers narrow, wide;  // 8 and 16 columns
};

template <typename T, typename C, typename P>
constexpr type_row row_of(c10::ScalarType type) {
  constexpr auto tails = std::make_integer_sequence<int, 8>();
  return {type, by_tail<T, C, P, 8>(tails), by_tail<T, C, P, 16>(tails)};
}

constexpr type_row rows[] = {
    row_of<c10::Half, c10::Half, c10::Half>(c10::kHalf),
    row_of<float, c10::Half, c10::Half>(c10::kFloat),
    row_of<c10::BFloat16, c10::BFloat16, c10::BFloat16>(c10::kBFloat16),
};

// Runs no destructors, since other threads of the runtime may be running.
[[noreturn]] void refuse_type() {
  std::fputs("unsupported dtype\n", stderr);
  std::fflush(stderr);
  std::_Exit(2);
}

}  // namespace

at::Tensor dotgrid_forward(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way) {
  const at::Tensor result = at::empty({request.n, static_cast<int64_t>(request.output_size)},
                                      at::TensorOptions().dtype(input.scalar_type()).device(weight.device()));
  const linear_operands on = operands_of(request, input, weight, result);
  for (const type_row& row : rows) {
    if (row.type != request.type) continue;
    const launchers& instances = way.shape.rows == 16 ? row.wide : row.narrow;
    instances[way.tail % 8](way, on);
    return result;
  }
  refuse_type();
}

}  // namespace orrery
