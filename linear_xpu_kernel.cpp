// forward_new behind its wrapper: sizes, the decision (linear/dispatch.h), the checks for the chosen kernel, and the
// launch. The kernels are in linear/one_row/, linear/row_pairs/, linear/dense/, batch/ and linear/engine/.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <algorithm>

#include "batch/batch_forward.h"
#include "batch/instances.h"
#include "formats/registry.h"
#include "includes/type_switch.h"
#include "linear/checks.h"
#include "linear/dense/dense.h"
#include "linear/dispatch.h"
#include "linear/engine/dotgrid.h"
#include "linear/one_row/quantize_q8_1.h"
#include "linear/operands.h"
#include "module/device_class.h"
#include "module/operations.h"

namespace orrery {
namespace {

const uint32_t device_class = ask_at_load(get_device_class);

linear_request request_of(const at::Tensor& weight, int32_t qtype, int64_t n, int64_t state_size, at::ScalarType type) {
  linear_request request;
  request.n = n;
  request.state_size = state_size;
  request.output_size = checked_rows(weight, qtype, request.state_size);
  request.format = weight_format{qtype};
  request.type = type;
  request.device_class = device_class;
  return request;
}

linear_request request_of(const at::Tensor& input, const at::Tensor& weight, int32_t qtype) {
  return request_of(weight, qtype, input.size(0), input.size(1), input.scalar_type());
}

at::Tensor empty_result(const at::Tensor& input, const at::Tensor& weight, const linear_request& request) {
  return at::empty({request.n, static_cast<int64_t>(request.output_size)},
                   at::TensorOptions().dtype(input.scalar_type()).device(weight.device()));
}

at::Tensor run_rows(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                    const linear_decision& way) {
  const at::Tensor result = empty_result(input, weight, request);
  check_value_type(request.type);
  check_row(way.kernel, request.state_size, way.row_multiple);
  at::Tensor x = input;
  if (way.quantizes_input) x = quantize_q8_1(input, request.n, request.state_size, weight.device());
  way.launch(way, operands_of(request, x, weight, result));
  return result;
}

}  // namespace

at::Tensor qlinear_dispatch(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t seq_hint) {
  if (find_weight_format(weight_format{qtype}) == nullptr) refuse_code(qtype);  // also codes that have sizes only
  linear_request request = request_of(input, weight, qtype);
  request.seq_hint = seq_hint;
  request.settings = read_settings(request);
  const linear_decision way = decide(request);
  switch (way.family) {
    case kernel_family::explicit_simd:
      return run_explicit_simd(input, weight, request, way);
    case kernel_family::one_row:
    case kernel_family::row_pairs:
      return run_rows(input, weight, request, way);
    case kernel_family::matrix_engine:
      return dotgrid_forward(input, weight, request, way);
    case kernel_family::whole:
      return linear_whole(input, weight, request, way);
    case kernel_family::tile:
      break;
  }
  return linear_by_tiles(input, weight, request, way);
}

at::Tensor qlinear_forward_xpu(const at::Tensor& input, const at::Tensor& weight, int32_t qtype) {
  const linear_request request = request_of(input, weight, qtype);
  using enum weight_format;
  constexpr weight_format served[] = {q4_0, q4_1, q8_0, nf4, fp8_e4m3, fp4, fp8_e5m2, iq2_xxs};
  if (std::find(std::begin(served), std::end(served), request.format) == std::end(served)) {
    return empty_dense(weight, request);
  }
  return dense_weight(weight, request, decide_dense(request));
}

at::Tensor dequantize_xpu(const at::Tensor& weight, int32_t qtype, int64_t state_size, at::ScalarType type) {
  linear_request request = request_of(weight, qtype, 0, state_size, type);
  if (request.format != weight_format::fp6) return dense_weight(weight, request, decide_dense(request));
  // fp6 has the kernel that products of many rows take, in half and float.
  if (!is_half_or_float(type)) request.type = at::kFloat;
  request.n = most_vector_rows + 1;
  return dense_weight(weight, request, decide(request)).to(type);
}

}  // namespace orrery
