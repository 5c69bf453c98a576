// The module: its entry point, its table of operations, and the wrappers that check tensors and open trace scopes.
#include <ATen/core/Tensor.h>
#include <torch/csrc/utils/pybind.h>

#include <stdexcept>
#include <vector>

#include "includes/assertion.h"
#include "module/bring_device.h"
#include "module/device_class.h"
#include "module/interpreter_version.h"
#include "module/operations.h"
#include "module/signature.h"
#include "module/trace_scope.h"

namespace orrery {
namespace {

using at::Tensor;
using std::optional;

// Function and line are part of the error, so they are those of the operation, not of this file.
void check_tensor(const Tensor& tensor, const char* word, const char* function, uint32_t line) {
  if (!tensor.is_xpu()) {
    c10::detail::torchCheckFail(function, "linear_xpu", line, std::string(word) + " must be a XPU tensor");
  }
  if (!tensor.is_contiguous()) {
    c10::detail::torchCheckFail(function, "linear_xpu", line, std::string(word) + " must be contiguous");
  }
}

Tensor linear_forward_new(const Tensor& input, const Tensor& weight, int32_t qtype, int64_t seq_hint) {
  check_tensor(input, "input", "linear_forward_new", 140);
  check_tensor(weight, "weights", "linear_forward_new", 141);
  const trace_scope scope("orrery_qlinear_forward", input);
  return qlinear_dispatch(input, weight, qtype, seq_hint);
}

// Records the weight; all other operations record their first tensor.
Tensor dequant(const Tensor& input, const Tensor& weight, int32_t qtype) {
  check_tensor(input, "input", "dequant", 191);
  check_tensor(weight, "weight", "dequant", 192);
  const trace_scope scope("orrery_xpu_dequant", weight);
  return qlinear_forward_xpu(input, weight, qtype);
}

Tensor bmm(const Tensor& A, const Tensor& B, const Tensor& C) {
  check_tensor(A, "A", "bmm", 202);
  check_tensor(B, "B", "bmm", 203);
  check_tensor(C, "C", "bmm", 204);
  const trace_scope scope("orrery_bmm", A);
  return bmm_xpu(A, B, C);
}

std::vector<Tensor> linear_xpu_qkv(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k,
                                   const Tensor& weight_v, const Tensor& position_ids, const Tensor& cache_k,
                                   const Tensor& cache_v, int32_t src_0_qtype, int32_t src_0_vtype, int64_t kv_seq_len,
                                   int64_t head_size, float rope_base) {
  check_tensor(input, "input", "linear_xpu_qkv", 225);
  check_tensor(weight_q, "weight_q", "linear_xpu_qkv", 226);
  check_tensor(weight_k, "weight_k", "linear_xpu_qkv", 227);
  check_tensor(weight_v, "weight_v", "linear_xpu_qkv", 228);
  const trace_scope scope("orrery_qkv_forward", input);
  return linear_xpu_fused_qkv(input, weight_q, weight_k, weight_v, {}, position_ids, cache_k, cache_v, src_0_qtype,
                              src_0_vtype, kv_seq_len, head_size, rope_base);
}

std::vector<Tensor> linear_xpu_qkv_bias(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k,
                                        const Tensor& weight_v, const Tensor& bias_q, const Tensor& bias_k,
                                        const Tensor& bias_v, const Tensor& position_ids, const Tensor& cache_k,
                                        const Tensor& cache_v, int32_t src_0_qtype, int32_t src_0_vtype,
                                        int64_t kv_seq_len, int64_t head_size, float rope_base) {
  check_tensor(input, "input", "linear_xpu_qkv_bias", 256);
  check_tensor(weight_q, "weight_q", "linear_xpu_qkv_bias", 257);
  check_tensor(weight_k, "weight_k", "linear_xpu_qkv_bias", 258);
  check_tensor(weight_v, "weight_v", "linear_xpu_qkv_bias", 259);
  const trace_scope scope("orrery_qkv_bias_forward", input);
  return linear_xpu_fused_qkv(input, weight_q, weight_k, weight_v, {bias_q, bias_k, bias_v}, position_ids, cache_k,
                              cache_v, src_0_qtype, src_0_vtype, kv_seq_len, head_size, rope_base);
}

std::vector<Tensor> linear_xpu_qk(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k,
                                  const Tensor& position_ids, const Tensor& cache_k, int32_t src_0_qtype,
                                  int64_t kv_seq_len, int64_t head_size, float rope_base) {
  check_tensor(input, "input", "linear_xpu_qk", 283);
  check_tensor(weight_q, "weight_q", "linear_xpu_qk", 284);
  check_tensor(weight_k, "weight_k", "linear_xpu_qk", 285);
  const trace_scope scope("orrery_qk_forward", input);
  return linear_xpu_fused_qk(input, weight_q, weight_k, position_ids, cache_k, src_0_qtype, kv_seq_len, head_size,
                             rope_base);
}

Tensor dequantize_rows(const Tensor& input, const Tensor& weight, int32_t qtype, int64_t row_size) {
  check_tensor(input, "input", "dequantize_rows", 300);
  check_tensor(weight, "weight", "dequantize_rows", 301);
  const trace_scope scope("orrery_dequantize_rows", input);
  return dequantize_rows_xpu(input, weight, qtype, row_size);
}

void rope_q_and_k(const Tensor& query, const Tensor& key, const Tensor& position_ids, const Tensor& query_out,
                  const Tensor& key_out, float base) {
  const trace_scope scope("orrery_rope_forward", query);
  apply_rotary_embedding_q_and_k(query, key, position_ids, query_out, key_out, base, true);
}

void rope_q_or_k(const Tensor& input, const Tensor& position_ids, const Tensor& output, bool backward) {
  const trace_scope scope(backward ? "orrery_rope_backward" : "orrery_rope_forward", input);
  apply_rotary_embedding_q_or_k(input, position_ids, output, true, backward);
}

void rope_cached(const Tensor& query, const Tensor& key, const Tensor& sin, const Tensor& cos, const Tensor& query_out,
                 const Tensor& key_out) {
  const trace_scope scope("orrery_rope_forward", query);
  apply_rotary_embedding_q_and_k_cache_freq(query, key, sin, cos, query_out, key_out, true);
}

Tensor fused_rms_norm(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                      const optional<Tensor>& bias, double eps) {
  const trace_scope scope("fused_rms_norm", input);
  return fused_rms_norm_xpu(input, normalized_shape, weight, bias, eps);
}

Tensor fast_layer_norm(const Tensor& input, at::IntArrayRef normalized_shape, const optional<Tensor>& weight,
                       const optional<Tensor>& bias, double eps) {
  const trace_scope scope("fast_layer_norm", input);
  return fused_layer_norm_xpu(input, normalized_shape, weight, bias, eps);
}

Tensor mlp_forward(const Tensor& input, const Tensor& weight_gate, const Tensor& weight_up, int64_t batch_size,
                   int64_t state_size, int64_t output_size, int32_t act_type, int32_t qtype) {
  const trace_scope scope("mlp_forward", input);
  return mlp_forward_xpu(input, weight_gate, weight_up, batch_size, state_size, output_size, act_type, qtype);
}

using index_lists = std::vector<std::vector<int>>;  // by expert

// For each expert, in which slot of which token it stands, token by token. `selected_experts` must be in host memory,
// and its values must be below num_experts.
std::vector<index_lists> get_moe_indexes(const Tensor& selected_experts, int32_t num_experts) {
  const auto require = [](bool holds, const char* expression, int line) {
    if (!holds) assertion_failed(expression, "linear_xpu.cpp", line, "get_moe_indexes");
  };
  require(selected_experts.dim() == 2, "selected_experts.dim() == 2", 319);
  require(selected_experts.is_contiguous(), "selected_experts.is_contiguous()", 320);
  const int* expert = selected_experts.data_ptr<int>();
  const int64_t tokens = selected_experts.size(0), top_k = selected_experts.size(1);
  index_lists slots(num_experts), tokens_of(num_experts);
  for (int64_t i = 0; i < tokens; ++i) {
    for (int64_t j = 0; j < top_k; ++j, ++expert) {
      slots[*expert].push_back(static_cast<int>(j));
      tokens_of[*expert].push_back(static_cast<int>(i));
    }
  }
  std::vector<index_lists> both;
  both.reserve(2);
  both.push_back(slots);  // a copy has no spare room
  both.push_back(tokens_of);
  return both;
}

void register_operations(pybind11::module_& m) {
  using pybind11::arg;
  bind_operation(m, "forward_new", linear_forward_new, "Linear forward (XPU) new format");
  bind_operation(m, "forward_qkv", linear_xpu_qkv, "Linear forward (XPU) qkv format", arg("input"), arg("weight_q"),
                 arg("weight_k"), arg("weight_v"), arg("position_ids"), arg("cache_k"), arg("cache_v"),
                 arg("src_0_qtype"), arg("src_0_vtype"), arg("kv_seq_len"), arg("head_size"),
                 arg("rope_base") = 10000.0);
  bind_operation(m, "forward_qkv_bias", linear_xpu_qkv_bias, "Linear forward (XPU) qkv with bias");
  bind_operation(m, "forward_qk", linear_xpu_qk, "Linear forward (XPU) qk format");
  bind_operation(m, "dequant", dequant, "Dequantize weight (XPU)");
  bind_operation(m, "apply_rotary_embedding_half_q_and_k", rope_q_and_k, "Apply rotary embedding to qk (XPU)");
  bind_operation(m, "apply_rotary_embedding_half_q_or_k", rope_q_or_k, "Apply rotary embedding to q/k (XPU)");
  bind_operation(m, "apply_rotary_embedding_half_q_and_k_cache_freq", rope_cached,
                 "Apply rotary embedding to qk (XPU) using cached sin/cos");
  bind_operation(m, "bmm", bmm, "SYCL-based batch matrix multiplication");
  bind_operation(m, "fused_rms_norm", fused_rms_norm, "fused rms norm");
  bind_operation(m, "fused_layer_norm", fast_layer_norm, "fused layer norm");
  bind_operation(m, "mlp_forward_xpu", mlp_forward, "fused mlp");
  bind_operation(m, "quantize_key_value", quantize_key_value, "quantize key value");
  bind_operation(m, "dequantize_key_value", dequantize_key_value, "dequantize key value");
  bind_operation(m, "query_key_fp8_matmul", query_key_fp8_matmul, "query key matmul");
  bind_operation(m, "attn_value_fp8_matmul", attn_value_fp8_matmul, "attn value matmul");
  bind_operation(m, "batch_forward", batch_forward, "batch forward");
  bind_operation(m, "sdp", sdp, "sdp");
  bind_operation(m, "sdp_fp8", sdp_fp8, "fp8 sdp");
  bind_operation(m, "sdp_causal", sdp_causal, "sdp causal");
  bind_operation(m, "sdp_fp8_causal", sdp_fp8_causal, "sdp fp8 causal");
  bind_operation(m, "rms_norm", rms_norm, "new rms norm");
  bind_operation(m, "rotary_half_inplaced", rotary_half_inplaced, "rotary half inplaced");
  bind_operation(m, "rotary_two_inplaced", rotary_two_inplaced, "rotary two inplaced");
  bind_operation(m, "rwkv_linear_attention_v4", rwkv_linear_attention_v4, "rwkv v4 attention");
  bind_operation(m, "rwkv_linear_attention_v5", rwkv_linear_attention_v5, "rwkv v5 attention");
  bind_operation(m, "rwkv_time_shift", rwkv_time_shift, "rwkv time shift");
  bind_operation(m, "dequantize_rows", dequantize_rows, "Dequantize rows of weight");
  bind_operation(m, "get_moe_indexes", get_moe_indexes, "get moe indexes");
}

PyObject* create_module() {
  if (!load_failure().empty()) throw std::runtime_error(without_device(load_failure()));
  static PyModuleDef definition;
  auto m = pybind11::module_::create_extension_module("orrery_ops", nullptr, &definition);
  register_operations(m);
  return m.ptr();
}

}  // namespace

}  // namespace orrery

// Not PYBIND11_MODULE, which makes a module of state size 0 with two-phase initialisation.
extern "C" PYBIND11_EXPORT PyObject* PyInit_orrery_ops() {
  if (!orrery::interpreter_fits(Py_GetVersion())) return nullptr;
  pybind11::detail::ensure_internals();
  try {
    return orrery::create_module();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
  return nullptr;
}
