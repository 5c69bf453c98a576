#include "linear/dense/dense.h"

#include <ATen/TensorIndexing.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>

#include <algorithm>

#include "formats/registry.h"
#include "linear/checks.h"
#include "linear/dense/dequantize.h"
#include "linear/dense/launchers.h"
#include "linear/dense/super_blocks.h"
#include "module/operations.h"

namespace orrery {
namespace {

struct launcher_row {
  weight_format format;
  void (*launch)(c10::ScalarType, const dense_launch&);
};

constexpr launcher_row launchers[] = {
    {weight_format::q4_0, launch_dense_q4_0}, {weight_format::q4_1, launch_dense_q4_1},
    {weight_format::q5_0, launch_dense_q5_0}, {weight_format::q5_1, launch_dense_q5_1},
    {weight_format::q8_0, launch_dense_q8_0}, {weight_format::nf4, launch_dense_nf4},
    {weight_format::nf3, launch_dense_nf3},   {weight_format::fp8_e4m3, launch_dense_fp8_e4m3},
    {weight_format::fp4, launch_dense_fp4},   {weight_format::fp8_e5m2, launch_dense_fp8_e5m2},
};

at::Tensor empty_matrix(uint64_t rows, uint64_t columns, const at::Tensor& weight, at::ScalarType type) {
  return at::empty({static_cast<int64_t>(rows), static_cast<int64_t>(columns)},
                   at::TensorOptions().dtype(type).device(weight.device()));
}

at::Tensor product(const at::Tensor& input, const at::Tensor& dense) { return at::linear(input, dense, {}); }

// Rows from `first_row` on, as many as `dense` has.
void fill_rows(const at::Tensor& dense, uint64_t first_row, const at::Tensor& weight, const linear_request& request,
               const linear_decision& way) {
  const auto* row = std::find_if(std::begin(launchers), std::end(launchers),
                                 [&](const launcher_row& l) { return l.format == request.format; });
  if (row == std::end(launchers)) {
    return launch_dequantize_blocks(request.format, request.type, request.output_size, request.state_size,
                                    weight.data_ptr(), dense.data_ptr(), weight.device(), way.waits);
  }
  dense_launch args;
  args.kernel = way.kernel;
  args.state_size = request.state_size;
  args.first_block = wrapped_blocks(first_row, request.state_size);
  args.rows = dense.size(0);
  args.group_items = way.local[0];
  args.sub_group = way.shape.sub_group;
  args.tile = way.family == kernel_family::tile;
  args.weight = static_cast<const uint8_t*>(weight.data_ptr());
  args.scale_offset = way.scale_offset;
  args.dense = dense.data_ptr();
  args.waits = way.waits;
  args.device = weight.device();
  row->launch(request.type, args);
}

}  // namespace

at::Tensor empty_dense(const at::Tensor& weight, const linear_request& request) {
  return empty_matrix(request.output_size, request.state_size, weight, request.type);
}

at::Tensor dense_weight(const at::Tensor& weight, const linear_request& request, const linear_decision& way) {
  const at::Tensor dense = empty_dense(weight, request);
  check_value_type(request.type);
  check_row(way.kernel, request.state_size, way.row_multiple);
  fill_rows(dense, 0, weight, request, way);
  return dense;
}

at::Tensor linear_whole(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                        const linear_decision& way) {
  if (way.shape.sub_group != 1) return product(input, dense_weight(weight, request, way));
  const at::Tensor dense = empty_dense(weight, request);
  return product(input, dequantize(request.format, weight, dense));
}

at::Tensor linear_by_tiles(const at::Tensor& input, const at::Tensor& weight, const linear_request& request,
                           const linear_decision& way) {
  using at::indexing::Slice;
  at::Tensor result = empty_matrix(request.n, request.output_size, weight, request.type);
  for (uint64_t start = 0; start < request.output_size; start += way.tile_rows) {
    const uint64_t rows = std::min(way.tile_rows, request.output_size - start);
    const at::Tensor dense = empty_matrix(rows, request.state_size, weight, request.type);
    check_value_type(request.type);
    check_row(way.kernel, request.state_size, way.row_multiple);
    fill_rows(dense, start, weight, request, way);
    result.index_put_({Slice(), Slice(static_cast<int64_t>(start), static_cast<int64_t>(start + rows))},
                      product(input, dense));
  }
  return result;
}

at::Tensor dequantize_rows_xpu(at::Tensor input, at::Tensor weight, int32_t qtype, int64_t row_size) {
  const at::Tensor rows = at::empty({input.size(0), input.size(1), row_size},
                                    at::TensorOptions().dtype(at::kFloat).device(weight.device()));
  const weight_format format{qtype};
  if (!has_rows_dequantize(format)) return rows;
  const int64_t* index = input.const_data_ptr<int64_t>();
  check_row("dequantize_rows", row_size, 64);
  launch_dequantize_rows(format, index, input.size(0) * input.size(1), row_size >> 8, weight.data_ptr(),
                         rows.data_ptr<float>(), weight.device());
  return rows;
}

}  // namespace orrery
