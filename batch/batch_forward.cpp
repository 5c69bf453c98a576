// batch_forward: a linear layer over a few input rows by the explicit-SIMD vector kernels.
#include "batch/batch_forward.h"

#include <ATen/ops/empty.h>

#include <stdexcept>
#include <string>

#include "batch/instances.h"
#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "linear/operands.h"
#include "module/operations.h"

namespace orrery {

void check_whole_groups(const linear_decision& way, const linear_operands& on) {
  const uint64_t nb = on.state_size / 64, GS = way.local[0], output_size = on.output_size;
  constexpr uint64_t SBS = 4;
  ORRERY_ASSERT(nb % SBS == 0);
  ORRERY_ASSERT(GS % SBS == 0);
  ORRERY_ASSERT(output_size % GS == 0);
}

void check_input_rows(const linear_decision& way, const linear_operands& on) {
  const uint64_t input_size = on.n;
  constexpr uint64_t VS = 8;
  ORRERY_ASSERT(input_size <= 64);
  const uint64_t boundary = input_size - way.tail;
  ORRERY_ASSERT(boundary % VS == 0);
}

void check_no_scales(const void* scales) { ORRERY_ASSERT(scales == nullptr); }

at::Tensor run_explicit_simd(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                             const linear_decision& way) {
  at::Tensor result = at::empty({request.n, static_cast<int64_t>(request.output_size)}, input.options());
  check_half_or_float(request.type);
  if (way.launch == nullptr) throw std::runtime_error("unsupported batch size: " + std::to_string(request.n));
  way.launch(way, operands_of(request, input, weight, result));
  return result;
}

at::Tensor batch_forward(const at::Tensor& input, const at::Tensor& weight, int64_t input_size, int64_t state_size,
                         int64_t output_size, int32_t qtype, int32_t device_class) {
  linear_request request;
  request.format = weight_format{qtype};
  request.type = input.scalar_type();
  request.n = input_size;
  request.state_size = static_cast<uint64_t>(state_size);
  request.output_size = static_cast<uint64_t>(output_size);
  request.device_class = static_cast<uint32_t>(device_class);
  return run_explicit_simd(input, weight, request, decide_explicit_simd(request));
}

}  // namespace orrery
