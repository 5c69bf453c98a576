// Rotary embedding in place of query and key in any type.
#include <ATen/core/Tensor.h>

#include "checked/checks.h"
#include "checked/heads.h"
#include "checked/operators.h"
#include "module/operations.h"

namespace orrery::checked {
namespace {

using at::Tensor;

void check_positions(const Tensor& positions, const Tensor& query) {
  const at::ScalarType type = positions.scalar_type();
  TORCH_CHECK_TYPE(type == at::kLong || type == at::kInt, "positions must be int64 or int32, not ", type_of(positions));
  check_same_device(positions, "positions", query, "query");
  const c10::SymInt batch = query.sym_size(0), rows = query.sym_size(2);
  const int64_t d = positions.dim();
  const bool fits = (d == 1 || (d == 2 && (positions.sym_size(0) == 1 || positions.sym_size(0) == batch))) &&
                    positions.sym_size(-1) == rows;
  TORCH_CHECK_VALUE(fits, "positions must be [", rows, "] or [", batch, ", ", rows, "] for a query of ",
                    query.sym_sizes(), ", not ", positions.sym_sizes());
}

void check_rotary(const Tensor& query, const Tensor& key, const Tensor& positions, const Tensor& inv_freq) {
  check_values(query, "query");
  check_on_xpu(query, "query");
  check_heads(query, "query");
  check_same_type(key, "key", query, "query");
  check_same_device(key, "key", query, "query");
  check_heads(key, "key");
  TORCH_CHECK_VALUE(key.sym_size(0) == query.sym_size(0) && key.sym_size(2) == query.sym_size(2) &&
                        key.sym_size(3) == query.sym_size(3),
                    "key must have query's batch, rows and head size, ", query.sym_sizes(), ", not ", key.sym_sizes());
  check_positions(positions, query);
  check_values(inv_freq, "inv_freq");
  check_same_device(inv_freq, "inv_freq", query, "query");
  const c10::SymInt pairs = query.sym_size(3) / 2;
  TORCH_CHECK_VALUE(inv_freq.dim() == 1 && inv_freq.sym_size(0) == pairs, "inv_freq must be [", pairs,
                    "] for a head size of ", query.sym_size(3), ", not ", inv_freq.sym_sizes());
  check_written(query, "query");
  check_written(key, "key");
  check_apart(query, "query", key, "key");
}

}  // namespace

void rotary_(const Tensor& query, const Tensor& key, const Tensor& positions, const Tensor& inv_freq,
             bool interleaved) {
  check_rotary(query, key, positions, inv_freq);
  if (query.numel() == 0 && key.numel() == 0) return;
  // In half only if the frequencies are: rounded to half, they turn a row at position 2000 by 0.2 radians too much.
  const bool in_half = query.scalar_type() == at::kHalf && inv_freq.scalar_type() == at::kHalf;
  const at::ScalarType inner = in_half ? at::kHalf : at::kFloat;
  const in_place q(query, inner), k(key, inner);
  const Tensor at_rows = positions.to(at::kLong).expand({query.size(0), query.size(2)}).contiguous();
  const Tensor frequencies = inv_freq.to(inner).contiguous();
  (interleaved ? rotary_two_inplaced : rotary_half_inplaced)(frequencies, at_rows, q.rows, k.rows);
  q.finish();
  k.finish();
}

void meta::rotary_(const Tensor& query, const Tensor& key, const Tensor& positions, const Tensor& inv_freq, bool) {
  check_rotary(query, key, positions, inv_freq);
}

}  // namespace orrery::checked
