// The fused projections behind their wrappers: sizes, the plan, the checks, and the launch. The kernels stand in
// fused/.
#include <ATen/core/Tensor.h>
#include <ATen/ops/as_strided.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "fused/instances.h"
#include "fused/plans.h"
#include "includes/assertion.h"
#include "includes/type_switch.h"
#include "linear/checks.h"
#include "linear/one_row/quantize_q8_1.h"
#include "module/device_class.h"
#include "module/operations.h"

namespace orrery {
namespace {

const uint32_t device_class = ask_at_load(get_device_class);

constexpr const char* unit = "linear_xpu_fused_qkv_kernel";

// Tensors of one projection.
struct projected {
  at::Tensor weight, bias;
  uint64_t output_size;
};

// Half of a head is a 32-bit number that rows are divided by.
void check_head_size(int64_t head_size) {
  if (head_size >= 2 && head_size <= INT32_MAX) return;
  throw std::runtime_error("orrery_ops: head_size must be from 2 to " + std::to_string(INT32_MAX) + ", not " +
                           std::to_string(head_size));
}

// The same storage with one more row in each head: the caller has allocated it.
at::Tensor grown(const at::Tensor& cache) {
  if (cache.dim() != 4) {
    throw std::runtime_error("orrery_ops: a cache must have 4 dimensions, not " + std::to_string(cache.dim()));
  }
  std::vector<int64_t> sizes = cache.sizes().vec();
  ++sizes[2];
  return cache.as_strided(sizes, cache.strides());
}

void* data_of(const at::Tensor& tensor, c10::ScalarType type) {
  TORCH_CHECK(tensor.scalar_type() == type, "expected scalar type ", type, " but found ", tensor.scalar_type());
  return tensor.data_ptr();
}

linear_decision decide(const projection_plan& plan, const std::vector<projected>& all) {
  uint64_t rows = 0;
  for (const projected& one : all) rows = std::max(rows, one.output_size);
  linear_decision way = decision_of(plan, device_class);
  const uint64_t group = way.shape.work_group;
  way.global = {rows / 2 * group, all.size()};
  way.local = {group, 1};
  return way;
}

// The query of a call, then its caches, grown; query, key and where there is one value are all[0], all[1] and all[2].
std::vector<at::Tensor> project(const projection_plan& plan, const at::Tensor& input, const std::vector<projected>& all,
                                const at::Tensor& position_ids, const std::vector<at::Tensor>& caches,
                                int64_t kv_seq_len, int64_t head_size, float rope_base) {
  const linear_decision way = decide(plan, all);
  const auto state_size = static_cast<uint64_t>(input.size(1));
  std::vector<at::Tensor> results(1);
  for (const at::Tensor& cache : caches) results.push_back(grown(cache));
  results[0] = at::empty({1, static_cast<int64_t>(all[0].output_size) / head_size, 1, head_size}, input.options());
  const c10::ScalarType type = input.scalar_type();
  at::Tensor x = input;
  if (way.quantizes_input) x = quantize_q8_1(input, 1, state_size, all[0].weight.device());
  check_row(way.kernel, state_size, way.row_multiple, unit);
  check_value_type(type, way.kernel);
  projection_operands on;
  on.type = type;
  on.state_size = state_size;
  on.x = x.data_ptr();
  on.has_bias = all[0].bias.defined();
  on.device = all[0].weight.device();
  on.to.head_size = static_cast<uint64_t>(head_size);
  on.to.half_head = static_cast<uint32_t>(head_size >> 1);
  on.to.position_ids = position_ids.data_ptr<int64_t>();
  on.to.theta = std::pow(rope_base, -2.0f / static_cast<float>(head_size));
  for (size_t p = 0; p < all.size(); ++p) {
    const projected& one = all[p];
    const at::Tensor& out = results[p];
    on.to.of[p] = {
        .weight = static_cast<const uint8_t*>(one.weight.data_ptr()),
        .bias = one.bias.defined() ? data_of(one.bias, type) : nullptr,
        .out = data_of(out, type),
        .scale_offset = offset_behind_blocks(plan.format, one.output_size, state_size),
        .output_size = one.output_size,
        .seq_offset = p == projections::query ? 0 : static_cast<uint64_t>(out.stride(2) * kv_seq_len),
        .head_stride = static_cast<uint64_t>(p == projections::query ? head_size : out.stride(1)),
    };
  }
  plan.kernel.of(device_class).launch(way, on);
  return results;
}

}  // namespace

std::vector<at::Tensor> linear_xpu_fused_qkv(const at::Tensor& input, const at::Tensor& weight_q,
                                             const at::Tensor& weight_k, const at::Tensor& weight_v,
                                             std::vector<at::Tensor> biases, const at::Tensor& position_ids,
                                             const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                             int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size,
                                             float rope_base) {
  const int64_t batch_size = input.size(0);
  const auto state_size = static_cast<uint64_t>(input.size(1));
  biases.resize(3);
  const std::vector<projected> all{{weight_q, biases[0], checked_rows(weight_q, src_0_qtype, state_size)},
                                   {weight_k, biases[1], checked_rows(weight_k, src_0_qtype, state_size)},
                                   {weight_v, biases[2], checked_rows(weight_v, src_0_vtype, state_size)}};
  ORRERY_ASSERT(batch_size == 1);
  const projection_plan& plan = plan_of(qkv_plans, weight_format{src_0_qtype}, device_class,
                                        biases[0].defined() ? "forward_qkv_bias" : "forward_qkv");
  check_head_size(head_size);
  return project(plan, input, all, position_ids, {cache_k, cache_v}, kv_seq_len, head_size, rope_base);
}

std::vector<at::Tensor> linear_xpu_fused_qk(const at::Tensor& input, const at::Tensor& weight_q,
                                            const at::Tensor& weight_k, const at::Tensor& position_ids,
                                            const at::Tensor& cache_k, int32_t src_0_qtype, int64_t kv_seq_len,
                                            int64_t head_size, float rope_base) {
  const int64_t batch_size = input.size(0);
  const auto state_size = static_cast<uint64_t>(input.size(1));
  const std::vector<projected> all{{weight_q, {}, checked_rows(weight_q, src_0_qtype, state_size)},
                                   {weight_k, {}, checked_rows(weight_k, src_0_qtype, state_size)}};
  ORRERY_ASSERT(batch_size == 1);
  const projection_plan& plan = plan_of(qk_plans, weight_format{src_0_qtype}, device_class, "forward_qk");
  check_head_size(head_size);
  return project(plan, input, all, position_ids, {cache_k}, kv_seq_len, head_size, rope_base);
}

}  // namespace orrery
