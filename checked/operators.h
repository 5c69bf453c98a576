// The operators of torch.ops.orrery. Each checks all that it is given, with one sentence for what does not fit, and
// then calls an operation of module/operations.h. The functions in `meta` make the same checks of sizes and types, also
// where sizes are symbolic, and give results without data.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <optional>
#include <tuple>

namespace orrery::checked {

// x W^T + bias, of x [..., columns]: [..., rows] in x's type. `weight` has the bytes of a matrix of stored_size.
at::Tensor linear(const at::Tensor& x, const at::Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                  const std::optional<at::Tensor>& bias);
// The same with a gradient for x and the bias.
at::Tensor linear_with_gradient(const at::Tensor& x, const at::Tensor& weight, int64_t qtype, int64_t rows,
                                int64_t columns, const std::optional<at::Tensor>& bias);

// The matrix [rows, columns], float32 if no type is given.
at::Tensor dequantize(const at::Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                      std::optional<at::ScalarType> dtype);

// Rows and columns of a matrix with the padding that its kernels need: those of all devices, or of the one in use.
std::tuple<int64_t, int64_t> stored_size(int64_t qtype, int64_t rows, int64_t columns, bool any_device);

// x / sqrt(mean(x^2) + eps) * weight, over the last dimension.
at::Tensor rms_norm(const at::Tensor& x, const at::Tensor& weight, double eps);

// softmax(query key^T / sqrt(head size) + mask) value, [batch, heads, rows, head size]. Keys and values in the query's
// type, or both in bytes. With `causal` the queries belong to the last rows of the keys.
at::Tensor attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const std::optional<at::Tensor>& mask, bool causal);

// Between numbers and one byte per element, all tensors [batch, heads, rows, head size].
void quantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_out,
                        const at::Tensor& value_out);
void dequantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_out,
                          const at::Tensor& value_out);

// Rotary embedding in place; `interleaved` pairs neighbours instead of halves.
void rotary_(const at::Tensor& query, const at::Tensor& key, const at::Tensor& positions, const at::Tensor& inv_freq,
             bool interleaved);

namespace meta {

at::Tensor linear(const at::Tensor& x, const at::Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                  const std::optional<at::Tensor>& bias);
at::Tensor dequantize(const at::Tensor& weight, int64_t qtype, int64_t rows, int64_t columns,
                      std::optional<at::ScalarType> dtype);
at::Tensor rms_norm(const at::Tensor& x, const at::Tensor& weight, double eps);
at::Tensor attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const std::optional<at::Tensor>& mask, bool causal);
void quantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_out,
                        const at::Tensor& value_out);
void dequantize_key_value(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_out,
                          const at::Tensor& value_out);
void rotary_(const at::Tensor& query, const at::Tensor& key, const at::Tensor& positions, const at::Tensor& inv_freq,
             bool interleaved);

}  // namespace meta

}  // namespace orrery::checked
