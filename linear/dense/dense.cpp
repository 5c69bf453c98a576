#include "linear/dense/dense.h"

#include <ATen/TensorIndexing.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>

#include <algorithm>

#include "formats/registry.h"
#include "includes/type_switch.h"
#include "linear/checks.h"
#include "linear/dense/super_blocks.h"
#include "module/operations.h"

namespace orrery {
namespace {

at::Tensor empty_matrix(uint64_t rows, uint64_t columns, const at::Tensor& weight, at::ScalarType type) {
  return at::empty({static_cast<int64_t>(rows), static_cast<int64_t>(columns)},
                   at::TensorOptions().dtype(type).device(weight.device()));
}

at::Tensor product(const at::Tensor& input, const at::Tensor& dense) { return at::linear(input, dense, {}); }

// Dequantizes `rows` rows of the weight from `first_row` on. If the decision has no row check, the launcher checks the
// type.
at::Tensor dense_rows(const at::Tensor& weight, const linear_request& request, const linear_decision& way,
                      uint64_t first_row, uint64_t rows) {
  const at::Tensor dense = empty_matrix(rows, request.state_size, weight, request.type);
  if (way.row_multiple != 0) check_value_type(request.type);
  check_row(way.kernel, request.state_size, way.row_multiple);
  way.launch(way, {.type = request.type,
                   .state_size = request.state_size,
                   .output_size = rows,
                   .weight = static_cast<const uint8_t*>(weight.data_ptr()),
                   .y = dense.data_ptr(),
                   .first_block = static_cast<uint64_t>(wrapped_blocks(first_row, request.state_size)),
                   .device = weight.device()});
  return dense;
}

}  // namespace

at::Tensor empty_dense(const at::Tensor& weight, const linear_request& request) {
  return empty_matrix(request.output_size, request.state_size, weight, request.type);
}

at::Tensor dense_weight(const at::Tensor& weight, const linear_request& request, const linear_decision& way) {
  return dense_rows(weight, request, way, 0, request.output_size);
}

at::Tensor linear_whole(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                        const linear_decision& way) {
  return product(input, dense_weight(weight, request, way));
}

at::Tensor linear_by_tiles(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way) {
  using at::indexing::Slice;
  at::Tensor result = empty_matrix(request.n, request.output_size, weight, request.type);
  for (uint64_t start = 0; start < request.output_size; start += way.tile_rows) {
    const uint64_t rows = std::min(way.tile_rows, request.output_size - start);
    const at::Tensor dense = dense_rows(weight, request, decide_band(way, rows), start, rows);
    result.index_put_({Slice(), Slice(static_cast<int64_t>(start), static_cast<int64_t>(start + rows))},
                      product(input, dense));
  }
  return result;
}

at::Tensor dequantize_rows_xpu(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_size) {
  const at::Tensor rows = at::empty({input.size(0), input.size(1), row_size},
                                    at::TensorOptions().dtype(at::kFloat).device(weight.device()));
  const weight_format format{qtype};
  if (!has_rows_dequantize(format)) return rows;
  const int64_t* index = input.const_data_ptr<int64_t>();
  check_row("dequantize_rows", row_size, 64);
  launch_dequantize_rows(format, {.index = index,
                                  .indexes = static_cast<uint64_t>(input.size(0) * input.size(1)),
                                  .nb_row = static_cast<uint64_t>(row_size) >> 8,
                                  .weight = static_cast<const uint8_t*>(weight.data_ptr()),
                                  .dense = rows.data_ptr<float>(),
                                  .device = weight.device()});
  return rows;
}

}  // namespace orrery
