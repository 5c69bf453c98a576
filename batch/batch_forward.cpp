// batch_forward: a linear layer over a few input rows by the explicit-SIMD vector kernels.
#include "batch/batch_forward.h"

#include <ATen/ops/empty.h>

#include <stdexcept>
#include <string>

#include "batch/instances.h"
#include "batch/plans.h"
#include "includes/assertion.h"
#include "module/operations.h"

namespace orrery {
namespace {

struct row {
  weight_format format;
  const vector_instances* instances;
};

constexpr row rows[] = {
    {weight_format::q4_0, &q4_0_instances}, {weight_format::q4_1, &q4_1_instances},
    {weight_format::q8_0, &q8_0_instances}, {weight_format::fp4, &fp4_instances},
    {weight_format::fp6, &fp6_instances},   {weight_format::fp8_e5m2, &fp8_e5m2_instances},
};

const vector_instances& instances_of(weight_format format) {
  for (const row& r : rows) {
    if (r.format == format) return *r.instances;
  }
  throw std::runtime_error("unsupported qtype: " + std::to_string(code_of(format)));
}

// What a kernel counts on: whole spans in a row, whole groups, and, where it takes its rows by groups and a tail, that
// they come out even.
void check_launch(const linear_request& r, const linear_decision& way, const void* scales) {
  const uint64_t nb = r.state_size / 64, output_size = r.output_size, input_size = static_cast<uint64_t>(r.n);
  const uint64_t GS = way.local[0];
  constexpr uint64_t SBS = 4, VS = 8;
  ORRERY_ASSERT(nb % SBS == 0);
  if (!way.slim) ORRERY_ASSERT(GS % SBS == 0);
  ORRERY_ASSERT(output_size % GS == 0);
  if (!way.slim) {
    ORRERY_ASSERT(input_size <= 64);
    const uint64_t boundary = input_size - way.tail;
    ORRERY_ASSERT(boundary % VS == 0);
  }
  if (r.format == weight_format::fp8_e5m2) ORRERY_ASSERT(scales == nullptr);
}

}  // namespace

at::Tensor run_explicit_simd(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                             const linear_decision& way) {
  at::Tensor result = at::empty({request.n, static_cast<int64_t>(request.output_size)}, input.options());
  const at::ScalarType type = request.type;
  if (type != at::kHalf && type != at::kFloat) {
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
  if (way.tail == 0) throw std::runtime_error("unsupported batch size: " + std::to_string(request.n));
  vector_operands o;
  o.planes = formats::planes_of(request.format, static_cast<const uint8_t*>(weight.data_ptr()), request.output_size,
                                request.state_size);
  o.x = input.data_ptr();
  o.y = result.data_ptr();
  o.input_size = static_cast<uint64_t>(request.n);
  o.state_size = request.state_size;
  o.output_size = request.output_size;
  o.device = weight.device();
  check_launch(request, way, o.planes.scales);
  const vector_instances& instances = instances_of(request.format);
  const auto& launchers = way.slim ? instances.slim : instances.general;
  launchers[type == at::kFloat][way.tail - 1](way, o);
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
