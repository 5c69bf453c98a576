// Attention with any mask, and the one-byte caches.
#include <ATen/MemoryOverlap.h>
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/full.h>
#include <ATen/ops/scalar_tensor.h>
#include <ATen/ops/where.h>

#include <limits>

#include "checked/checks.h"
#include "checked/heads.h"
#include "checked/operators.h"
#include "module/operations.h"

namespace orrery::checked {
namespace {

using at::Tensor;
using std::optional;

constexpr double hidden = -std::numeric_limits<double>::infinity();

// The type in which the kernels serve a value type.
at::ScalarType kernel_type(at::ScalarType type) { return type == at::kHalf ? at::kHalf : at::kFloat; }

void check_cache(const Tensor& x, const char* name, const Tensor& query) {
  check_heads(x, name);
  check_same_device(x, name, query, "query");
  TORCH_CHECK_VALUE(x.sym_size(0) == query.sym_size(0) && x.sym_size(3) == query.sym_size(3), name,
                    " must have query's batch and head size, ", query.sym_sizes(), ", not ", x.sym_sizes());
}

void check_mask(const Tensor& mask, const Tensor& query, const Tensor& key) {
  const at::ScalarType type = mask.scalar_type();
  TORCH_CHECK_TYPE(is_value_type(type) || type == at::kBool,
                   "mask must be bool, float32, float16, bfloat16 or float64, not ", type_of(mask));
  check_same_device(mask, "mask", query, "query");
  const c10::SymInt wanted[] = {query.sym_size(0), query.sym_size(1), query.sym_size(2), key.sym_size(2)};
  bool fits = mask.dim() <= 4;
  for (int64_t i = 1; fits && i <= mask.dim(); ++i) {
    fits = mask.sym_size(-i) == 1 || mask.sym_size(-i) == wanted[4 - i];
  }
  TORCH_CHECK_VALUE(fits, "mask must expand to [batch, heads, rows, keys], ", c10::SymIntArrayRef(wanted), ", not ",
                    mask.sym_sizes());
}

void check_attention(const Tensor& query, const Tensor& key, const Tensor& value, const optional<Tensor>& mask,
                     bool causal) {
  check_values(query, "query");
  check_on_xpu(query, "query");
  check_heads(query, "query");
  TORCH_CHECK_TYPE(key.scalar_type() == query.scalar_type() || key.scalar_type() == at::kByte, "key must be ",
                   type_of(query), " as query is, or uint8, not ", type_of(key));
  check_same_type(value, "value", key, "key");
  check_cache(key, "key", query);
  check_cache(value, "value", query);
  TORCH_CHECK_VALUE(key.sym_size(1) == value.sym_size(1) && key.sym_size(2) == value.sym_size(2),
                    "value must have key's heads and rows, ", key.sym_sizes(), ", not ", value.sym_sizes());
  TORCH_CHECK_VALUE(key.sym_size(1) > 0 && query.sym_size(1) % key.sym_size(1) == 0,
                    "query's heads must be a multiple of key's, not ", query.sym_size(1), " and ", key.sym_size(1));
  TORCH_CHECK_VALUE(key.sym_size(2) > 0, "key must have at least one row");
  TORCH_CHECK_VALUE(!causal || query.sym_size(2) <= key.sym_size(2),
                    "with causal, query must not have more rows than key, not ", query.sym_size(2), " and ",
                    key.sym_size(2));
  if (mask) check_mask(*mask, query, key);
}

// The kernels read the rows of a head's keys and values as contiguous.
Tensor packed(const Tensor& x) {
  const bool rows_follow = x.stride(3) == 1 && x.stride(2) == x.size(3);
  return rows_follow ? x : x.contiguous();
}

// The mask as a term that is added, in a type that the kernels take.
Tensor as_term(const Tensor& mask) {
  if (mask.scalar_type() == at::kBool) {
    const auto options = at::TensorOptions().dtype(at::kFloat).device(mask.device());
    return at::where(mask, at::scalar_tensor(0, options), at::scalar_tensor(hidden, options));
  }
  const bool taken = mask.scalar_type() == at::kHalf;
  return taken ? mask : mask.to(at::kFloat);
}

// For queries at the last `rows` of `keys` positions: hides the keys after each query's own.
Tensor causal_term(int64_t rows, int64_t keys, const Tensor& query) {
  return at::full({rows, keys}, hidden, query.options().dtype(at::kFloat)).triu(keys - rows + 1);
}

// Mask and causal term together, [batch, heads, rows, keys] with unit stride over keys; nothing if there is neither.
optional<Tensor> whole_mask(const optional<Tensor>& mask, bool causal, const Tensor& query, int64_t keys) {
  const int64_t rows = query.size(2);
  optional<Tensor> term;
  if (mask) term = as_term(*mask);
  if (causal && rows > 1) {
    const Tensor behind = causal_term(rows, keys, query);
    term = term ? term->add(behind) : behind;
  }
  if (!term) return term;
  const Tensor whole = term->expand({query.size(0), query.size(1), rows, keys});
  return whole.stride(3) == 1 ? whole : whole.contiguous();
}

}  // namespace

Tensor attention(const Tensor& query, const Tensor& key, const Tensor& value, const optional<Tensor>& mask,
                 bool causal) {
  check_attention(query, key, value, mask, causal);
  if (query.numel() == 0) return at::empty(query.sizes(), query.options());
  const at::ScalarType type = query.scalar_type(), inner = kernel_type(type);
  const bool bytes = key.scalar_type() == at::kByte;
  const Tensor q = with_unit_stride(query.to(inner));
  const Tensor k = packed(bytes ? key : key.to(inner)), v = packed(bytes ? value : value.to(inner));
  if (causal && !mask && q.size(2) == k.size(2)) {
    return (bytes ? sdp_fp8_causal(q, k, v) : sdp_causal(q, k, v)).to(type);
  }
  const auto all = whole_mask(mask, causal, q, k.size(2));
  return (bytes ? sdp_fp8(q, k, v, all) : sdp(q, k, v, all)).to(type);
}

Tensor meta::attention(const Tensor& query, const Tensor& key, const Tensor& value, const optional<Tensor>& mask,
                       bool causal) {
  check_attention(query, key, value, mask, causal);
  return at::empty_symint(query.sym_sizes(), query.options());
}

// ---- One-byte caches ----

namespace {

void check_codec(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_on_xpu(key, "key");
  check_heads(key, "key");
  const std::pair<const Tensor&, const char*> others[] = {
      {value, "value"}, {key_out, "key_out"}, {value_out, "value_out"}};
  for (const auto& [x, name] : others) {
    check_same_device(x, name, key, "key");
    TORCH_CHECK_VALUE(x.sym_sizes() == key.sym_sizes(), name, " must have key's size, ", key.sym_sizes(), ", not ",
                      x.sym_sizes());
  }
  check_same_type(value, "value", key, "key");
  check_same_type(value_out, "value_out", key_out, "key_out");
  check_written(key_out, "key_out");
  check_written(value_out, "value_out");
  check_apart(key_out, "key_out", value_out, "value_out");
}

void check_quantize(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_values(key, "key");
  check_bytes(key_out, "key_out");
  check_codec(key, value, key_out, value_out);
}

void check_dequantize(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_bytes(key, "key");
  check_values(key_out, "key_out");
  check_codec(key, value, key_out, value_out);
}

}  // namespace

void quantize_key_value(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_quantize(key, value, key_out, value_out);
  if (key.numel() == 0) return;
  const at::ScalarType inner = kernel_type(key.scalar_type());
  const in_place k(key_out, at::kByte), v(value_out, at::kByte);
  orrery::quantize_key_value(with_unit_stride(key.to(inner)), with_unit_stride(value.to(inner)), k.rows, v.rows);
  k.finish();
  v.finish();
}

void dequantize_key_value(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_dequantize(key, value, key_out, value_out);
  if (key.numel() == 0) return;
  const at::ScalarType inner = kernel_type(key_out.scalar_type());
  const in_place k(key_out, inner), v(value_out, inner);
  orrery::dequantize_key_value(with_unit_stride(key), with_unit_stride(value), k.rows, v.rows);
  k.finish();
  v.finish();
}

void meta::quantize_key_value(const Tensor& key, const Tensor& value, const Tensor& key_out, const Tensor& value_out) {
  check_quantize(key, value, key_out, value_out);
}

void meta::dequantize_key_value(const Tensor& key, const Tensor& value, const Tensor& key_out,
                                const Tensor& value_out) {
  check_dequantize(key, value, key_out, value_out);
}

}  // namespace orrery::checked
