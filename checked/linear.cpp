// linear and dequantize over matrices of any number of rows and columns.
#include <ATen/core/Tensor.h>
#include <ATen/ops/constant_pad_nd.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>

#include <algorithm>

#include "checked/checks.h"
#include "checked/operators.h"
#include "formats/registry.h"
#include "includes/type_switch.h"
#include "linear/dense/dense.h"
#include "linear/stored_size.h"
#include "module/device_class.h"
#include "module/operations.h"

namespace orrery::checked {
namespace {

using at::Tensor;
using std::optional;

const uint32_t device_class = ask_at_load(get_device_class);

matrix_size checked_size(int64_t qtype, int64_t rows, int64_t columns, optional<uint32_t> on_class) {
  const bool known = qtype >= 0 && qtype < format_codes;
  const format_row* row = known ? find_weight_format(weight_format{static_cast<int32_t>(qtype)}) : nullptr;
  TORCH_CHECK_VALUE(row != nullptr, "qtype must be the code of a weight format, not ", qtype);
  TORCH_CHECK_VALUE(rows > 0 && columns > 0, "a weight has at least one row and one column, not [", rows, ", ", columns,
                    "]");
  // Below this no product of the two overflows.
  constexpr int64_t most = int64_t{1} << 31;
  TORCH_CHECK_VALUE(rows < most && columns < most, "a weight has fewer than 2**31 rows and columns, not [", rows, ", ",
                    columns, "]");
  const matrix_size stored = stored_size(row->format, {rows, columns}, on_class);
  TORCH_CHECK_VALUE(row->layout != weight_layout::split || stored.rows * stored.columns < most, "a weight in ",
                    row->name, " has fewer than 2**31 elements, not ", stored.rows, " x ", stored.columns);
  return stored;
}

matrix_size check_weight(const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns) {
  const matrix_size stored = checked_size(qtype, rows, columns, {});
  check_bytes(weight, "weight");
  const int64_t bytes = stored.rows * stored.columns / block_elems[qtype] * static_cast<int64_t>(block_bytes[qtype]);
  TORCH_CHECK_VALUE(weight.dim() == 1 && weight.sym_size(0) == bytes, "weight must be [", bytes, "] for ", rows,
                    " rows and ", columns, " columns, not ", weight.sym_sizes());
  TORCH_CHECK_VALUE(weight.is_contiguous(), "weight must be contiguous");
  check_on_xpu(weight, "weight");
  return stored;
}

matrix_size check_linear(const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                         const optional<Tensor>& bias) {
  check_values(x, "x");
  check_on_xpu(x, "x");
  const matrix_size stored = check_weight(weight, qtype, rows, columns);
  check_same_device(weight, "weight", x, "x");
  TORCH_CHECK_VALUE(x.dim() > 0 && x.sym_size(-1) == columns, "x must be [..., ", columns, "] for a weight of ",
                    columns, " columns, not ", x.sym_sizes());
  if (bias) {
    check_same_type(*bias, "bias", x, "x");
    check_same_device(*bias, "bias", x, "x");
    TORCH_CHECK_VALUE(bias->dim() == 1 && bias->sym_size(0) == rows, "bias must be [", rows, "] for a weight of ", rows,
                      " rows, not ", bias->sym_sizes());
  }
  return stored;
}

at::ScalarType checked_type(optional<at::ScalarType> dtype) {
  const at::ScalarType type = dtype.value_or(at::kFloat);
  TORCH_CHECK_TYPE(is_value_type(type), "dtype must be float32, float16, bfloat16 or float64, not ", name_of(type));
  return type;
}

// Whether several rows have a kernel: fp6 has some for half and float only, the matrix engine ends the process for
// double.
bool exists(weight_format format, at::ScalarType type) {
  if (format == weight_format::fp6) return is_half_or_float(type);
  return type != at::kDouble || std::ranges::find(engine_formats, format) == std::end(engine_formats);
}

// x: [n, columns], at least one row.
Tensor product(const Tensor& x, const Tensor& weight, int32_t qtype, int64_t columns) {
  const Tensor input = columns == x.size(1) ? x.contiguous() : at::constant_pad_nd(x, {0, columns - x.size(1)});
  if (x.size(0) > 1 && !exists(weight_format{qtype}, x.scalar_type())) {
    return at::linear(input, dequantize_xpu(weight, qtype, columns, x.scalar_type()));
  }
  return qlinear_dispatch(input, weight, qtype, x.size(0));
}

template <typename Size>
std::vector<Size> result_size(c10::ArrayRef<Size> input, int64_t rows) {
  std::vector<Size> size = input.vec();
  size.back() = rows;
  return size;
}

}  // namespace

Tensor linear(const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
              const optional<Tensor>& bias) {
  const matrix_size stored = check_linear(x, weight, qtype, rows, columns, bias);
  const std::vector<int64_t> size = result_size(x.sizes(), rows);
  if (x.numel() == 0) return at::empty(size, x.options());
  Tensor y = product(x.dim() == 2 ? x : x.reshape({-1, columns}), weight, static_cast<int32_t>(qtype), stored.columns);
  if (stored.rows != rows) y = y.narrow(1, 0, rows).contiguous();
  if (bias) y.add_(*bias);
  return x.dim() == 2 ? y : y.view(size);
}

Tensor dequantize(const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns, optional<at::ScalarType> dtype) {
  const matrix_size stored = check_weight(weight, qtype, rows, columns);
  const at::ScalarType type = checked_type(dtype);
  const Tensor dense = dequantize_xpu(weight, static_cast<int32_t>(qtype), stored.columns, type);
  return dense.narrow(0, 0, rows).narrow(1, 0, columns).contiguous();
}

std::tuple<int64_t, int64_t> stored_size(int64_t qtype, int64_t rows, int64_t columns, bool any_device) {
  const auto on_class = any_device ? optional<uint32_t>() : optional<uint32_t>(device_class);
  const matrix_size stored = checked_size(qtype, rows, columns, on_class);
  return {stored.rows, stored.columns};
}

namespace meta {

Tensor linear(const Tensor& x, const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
              const optional<Tensor>& bias) {
  check_linear(x, weight, qtype, rows, columns, bias);
  return at::empty_symint(result_size(x.sym_sizes(), rows), x.options());
}

Tensor dequantize(const Tensor& weight, int64_t qtype, int64_t rows, int64_t columns, optional<at::ScalarType> dtype) {
  check_weight(weight, qtype, rows, columns);
  return at::empty({rows, columns}, weight.options().dtype(checked_type(dtype)));
}

}  // namespace meta

}  // namespace orrery::checked
