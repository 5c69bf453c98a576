// forward_new behind its wrapper: sizes, the decision, the checks of the chosen way, and the launch.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <stdexcept>
#include <string>

#include "device_class.h"
#include "formats/registry.h"
#include "linear_dispatch.h"
#include "linear_kernels.h"
#include "operations.h"

namespace orrery {
namespace {

const uint32_t device_class = ask_at_load(get_device_class);

bool is_value_type(at::ScalarType type) {
  return type == at::kHalf || type == at::kFloat || type == at::kDouble || type == at::kBFloat16;
}

void check_value_type(at::ScalarType type) {
  TORCH_CHECK_NOT_IMPLEMENTED(is_value_type(type), "\"qlinear_forward_xpu\" not implemented for '", toString(type),
                              "'");
}

// The percent signs are literal; the numbers follow the text without a blank.
void check_row(const linear_decision& way, uint64_t state_size) {
  if (way.row_multiple == 0 || state_size % way.row_multiple == 0) return;
  const std::string text = way.row_multiple == 64 ? "%d must be a multiple of 64" + std::to_string(state_size)
                                                  : "%d must be a multiple of %d" + std::to_string(state_size) +
                                                        std::to_string(way.row_multiple);
  c10::detail::torchCheckFail(way.kernel, "linear_xpu_kernel", __LINE__, text);
}

linear_request request_of(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t seq_hint) {
  linear_request request;
  request.n = input.size(0);
  request.state_size = input.size(1);
  // Without these two guards the sizes would be divided by zero, or a code without a reader would be let through.
  if (find_weight_format(qtype) == nullptr) throw std::runtime_error("unsupported qtype: " + std::to_string(qtype));
  if (request.state_size == 0) throw std::runtime_error("orrery_ops: input must have at least one column");
  request.output_size = rows_of_weight(qtype, weight.size(0), request.state_size);
  request.qtype = qtype;
  request.type = input.scalar_type();
  request.seq_hint = seq_hint;
  request.device_class = device_class;
  return request;
}

at::Tensor empty_result(const at::Tensor& input, const at::Tensor& weight, const linear_request& request) {
  return at::empty({request.n, static_cast<int64_t>(request.output_size)},
                   at::TensorOptions().dtype(input.scalar_type()).device(weight.device()));
}

at::Tensor run_rows(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                    const linear_decision& way) {
  at::Tensor result = empty_result(input, weight, request);
  check_value_type(request.type);
  check_row(way, request.state_size);
  row_launch args{request.state_size,
                  request.output_size,
                  static_cast<const uint8_t*>(weight.data_ptr()),
                  way.scale_offset,
                  input.data_ptr(),
                  result.data_ptr(),
                  weight.device(),
                  static_cast<uint64_t>(request.n)};
  if (way.family == kernel_family::batch) {
    launch_batch(way.kernel, way.shape, request.type, args);
  } else {
    if (!has_single_row(request.qtype)) not_built_yet(way.kernel);
    launch_single_row(request.qtype, way.shape, request.type, args);
  }
  return result;
}

// The ways for several rows: what they refuse is refused, and the rest waits for their kernels.
[[noreturn]] void run_several_rows(const linear_request& request, const linear_decision& way) {
  switch (way.family) {
    case kernel_family::whole:
      if (request.qtype == 29 && request.type != at::kHalf && request.type != at::kFloat) {
        throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
      }
      [[fallthrough]];
    case kernel_family::tile:
      check_value_type(request.type);
      check_row(way, request.state_size);
      break;
    default:
      break;
  }
  not_built_yet(way.kernel);
}

}  // namespace

at::Tensor qlinear_dispatch(at::Tensor input, at::Tensor weight, int32_t qtype, int64_t seq_hint) {
  linear_request request = request_of(input, weight, qtype, seq_hint);
  request.settings = read_settings(request);
  const linear_decision way = decide(request);
  if (way.family == kernel_family::single_row || way.family == kernel_family::batch) {
    return run_rows(input, weight, request, way);
  }
  run_several_rows(request, way);
}

}  // namespace orrery
