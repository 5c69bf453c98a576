// The host functions of the module's operations; each unit defines its own.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace orrery {

// linear_xpu_kernel
at::Tensor qlinear_dispatch(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t seq_hint);
at::Tensor qlinear_forward_xpu(const at::Tensor& input, const at::Tensor& weight, int32_t qtype);
at::Tensor dequantize_rows_xpu(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_size);

// linear_xpu_fused_qkv_kernel
std::vector<at::Tensor> linear_xpu_fused_qkv(const at::Tensor& input, const at::Tensor& weight_q,
                                             const at::Tensor& weight_k, const at::Tensor& weight_v,
                                             std::vector<at::Tensor> biases, const at::Tensor& position_ids,
                                             const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                             int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size,
                                             float rope_base);
std::vector<at::Tensor> linear_xpu_fused_qk(const at::Tensor& input, const at::Tensor& weight_q,
                                            const at::Tensor& weight_k, const at::Tensor& position_ids,
                                            const at::Tensor& cache_k, int32_t src_0_qtype, int64_t kv_seq_len,
                                            int64_t head_size, float rope_base);

// mlp_xpu_kernel
at::Tensor mlp_forward_xpu(const at::Tensor& input, const at::Tensor& weight_gate, const at::Tensor& weight_up,
                           int64_t batch_size, int64_t state_size, int64_t output_size, int32_t act_type,
                           int32_t qtype);

// batch/batch_forward
at::Tensor batch_forward(const at::Tensor& input, const at::Tensor& weight, int64_t input_size, int64_t state_size,
                         int64_t output_size, int32_t qtype, int32_t device_class);

// bmm_xpu_kernel
at::Tensor bmm_xpu(const at::Tensor& A, const at::Tensor& B, const at::Tensor& C);

// sdp
at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
               const std::optional<at::Tensor>& mask);
at::Tensor sdp_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value);
at::Tensor sdp_fp8(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                   const std::optional<at::Tensor>& mask);
at::Tensor sdp_fp8_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value);

// kv
void quantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
                        const at::Tensor& value_output);
void dequantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
                          const at::Tensor& value_output);
at::Tensor query_key_fp8_matmul(const at::Tensor& query, const at::Tensor& key);
at::Tensor attn_value_fp8_matmul(const at::Tensor& attn, const at::Tensor& value);

// norm
at::Tensor rms_norm(const at::Tensor& weight, const at::Tensor& input, float eps);

// add_norm_fusion. The trailing dimensions that `normalized_shape` counts are normalized; the result has the input's
// shape. For rows that are too long it is an empty tensor. add_layer_norm and add_rms_norm are the same operations
// under trace names of their own.
at::Tensor fused_layer_norm_xpu(const at::Tensor& input, at::IntArrayRef normalized_shape,
                                const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias,
                                double eps);
at::Tensor fused_rms_norm_xpu(const at::Tensor& input, at::IntArrayRef normalized_shape,
                              const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias,
                              double eps);
at::Tensor add_layer_norm(const at::Tensor& input, at::IntArrayRef normalized_shape,
                          const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias, double eps);
at::Tensor add_rms_norm(const at::Tensor& input, at::IntArrayRef normalized_shape,
                        const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias, double eps);

// rope_xpu. Tensors are [batch, head, position, head_dim], positions [batch, position]. The last Boolean but
// `backward` has no effect.
void apply_rotary_embedding_q_and_k(const at::Tensor& query, const at::Tensor& key, const at::Tensor& position_ids,
                                    const at::Tensor& query_out, const at::Tensor& key_out, float base, bool);
void apply_rotary_embedding_q_or_k(const at::Tensor& input, const at::Tensor& position_ids, const at::Tensor& output,
                                   bool, bool backward);
void apply_rotary_embedding_q_and_k_cache_freq(const at::Tensor& query, const at::Tensor& key, const at::Tensor& sin,
                                               const at::Tensor& cos, const at::Tensor& query_out,
                                               const at::Tensor& key_out, bool);

// rope
void rotary_half_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query,
                          const at::Tensor& key);
void rotary_two_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids, const at::Tensor& query,
                         const at::Tensor& key);

// rwkv
at::Tensor rwkv_linear_attention_v4(const at::Tensor& time_decay, const at::Tensor& time_first, const at::Tensor& key,
                                    const at::Tensor& value, const at::Tensor& num_state, const at::Tensor& den_state,
                                    const at::Tensor& max_state);
at::Tensor rwkv_linear_attention_v5(const at::Tensor& time_decay, const at::Tensor& time_first,
                                    const at::Tensor& receptance, const at::Tensor& key, const at::Tensor& value,
                                    const at::Tensor& state);
at::Tensor rwkv_time_shift(const at::Tensor& hidden, const at::Tensor& shifted, const at::Tensor& mix);

}  // namespace orrery
