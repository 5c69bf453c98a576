// Attention: softmax(query key^T / sqrt(head_dim) + mask) value, for each query row. Over all keys or, in the causal
// form, over a row's own key and the earlier ones; over a plain cache or one of a byte per element. The kernels are in
// attention/.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include <cstdint>
#include <optional>

#include "attention/launch.h"
#include "includes/assertion.h"
#include "module/operations.h"

namespace orrery {
namespace {

using mask_argument = std::optional<at::Tensor>;

// Reading them is the first step: an argument with fewer dimensions fails here.
struct sizes {
  int64_t bsz, num_heads, input_size, head_dim, num_kv_heads, context_length;

  sizes(const at::Tensor& query, const at::Tensor& key)
      : bsz(query.size(0)),
        num_heads(query.size(1)),
        input_size(query.size(2)),
        head_dim(query.size(3)),
        num_kv_heads(key.size(1)),
        context_length(key.size(2)) {}
};

void check_caches(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  ORRERY_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  ORRERY_ASSERT(query.size(3) == key.size(3) && key.size(3) == value.size(3));
  // With no heads the remainder below would be a division by zero, not a failed assertion.
  if (key.size(1) == 0) {
    assertion_failed("query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)", __FILE__, __LINE__, __func__);
  }
  ORRERY_ASSERT(query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1));
  ORRERY_ASSERT(key.size(2) == value.size(2));
}

void check_types(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  ORRERY_ASSERT(query.scalar_type() == key.scalar_type() && query.scalar_type() == value.scalar_type());
}

// A mask of one head becomes one whose heads are the same.
mask_argument checked_mask(const mask_argument& mask, const sizes& of) {
  if (!mask) return mask;
  const auto [bsz, num_heads, input_size, head_dim, num_kv_heads, context_length] = of;
  ORRERY_ASSERT(mask->size(0) == bsz);
  ORRERY_ASSERT(mask->size(1) == num_heads || mask->size(1) == 1);
  ORRERY_ASSERT(mask->size(2) == input_size);
  ORRERY_ASSERT(mask->size(3) == context_length);
  return mask->size(1) == 1 ? mask->expand({-1, num_heads, -1, -1}) : *mask;
}

void check_causal(const sizes& of) {
  const auto [bsz, num_heads, input_size, head_dim, num_kv_heads, context_length] = of;
  ORRERY_ASSERT(input_size == context_length);
}

at::Tensor result_of(const sizes& of, const at::Tensor& query) {
  return at::empty({of.bsz, of.num_heads, of.input_size, of.head_dim}, query.options());
}

}  // namespace

at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const mask_argument& mask) {
  const sizes of(query, key);
  check_caches(query, key, value);
  check_types(query, key, value);
  const at::Tensor out = result_of(of, query);
  launch_sdp({query, key, value, checked_mask(mask, of), out, "sdp"});
  return out;
}

at::Tensor sdp_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  const sizes of(query, key);
  check_causal(of);
  check_caches(query, key, value);
  check_types(query, key, value);
  const at::Tensor out = result_of(of, query);
  launch_sdp_causal({query, key, value, std::nullopt, out, "sdp causal"});
  return out;
}

at::Tensor sdp_fp8(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const mask_argument& mask) {
  const sizes of(query, key);
  check_caches(query, key, value);
  const at::Tensor out = result_of(of, query);
  launch_sdp_fp8({query, key, value, checked_mask(mask, of), out, "sdp fp8"});
  return out;
}

at::Tensor sdp_fp8_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  const sizes of(query, key);
  check_causal(of);
  check_caches(query, key, value);
  const at::Tensor out = result_of(of, query);
  launch_sdp_fp8_causal({query, key, value, std::nullopt, out, "sdp fp8 causal"});
  return out;
}

}  // namespace orrery
