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

// The last steps of every operation. The result is allocated before head size and types are judged.
at::Tensor attend(const sizes& of, const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                  const mask_argument& mask, void (*launch)(const attention_call&), const char* record) {
  const at::Tensor out = at::empty({of.bsz, of.num_heads, of.input_size, of.head_dim}, query.options());
  launch({query, key, value, checked_mask(mask, of), out, record});
  return out;
}

}  // namespace

at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const mask_argument& mask) {
  const sizes of(query, key);
  check_caches(query, key, value);
  check_types(query, key, value);
  return attend(of, query, key, value, mask, launch_sdp, "sdp");
}

at::Tensor sdp_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  const sizes of(query, key);
  check_causal(of);
  check_caches(query, key, value);
  check_types(query, key, value);
  return attend(of, query, key, value, std::nullopt, launch_sdp_causal, "sdp causal");
}

at::Tensor sdp_fp8(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const mask_argument& mask) {
  const sizes of(query, key);
  check_caches(query, key, value);
  return attend(of, query, key, value, mask, launch_sdp_fp8, "sdp fp8");
}

at::Tensor sdp_fp8_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  const sizes of(query, key);
  check_causal(of);
  check_caches(query, key, value);
  return attend(of, query, key, value, std::nullopt, launch_sdp_fp8_causal, "sdp fp8 causal");
}

}  // namespace orrery
