// The host functions that fill a dense weight of half or float by explicit-SIMD kernels.
#pragma once

#include <ATen/core/Tensor.h>

#include "formats/registry.h"

namespace orrery {

// Each fills `dense`, rows by columns, from the whole weight, and returns a new handle on it.
at::Tensor dequantize_q4_0(const at::Tensor& weight, const at::Tensor& dense);
at::Tensor dequantize_q4_1(const at::Tensor& weight, const at::Tensor& dense);
at::Tensor dequantize_q8_0(const at::Tensor& weight, const at::Tensor& dense);
at::Tensor dequantize_fp4(const at::Tensor& weight, const at::Tensor& dense);
at::Tensor dequantize_fp6(const at::Tensor& weight, const at::Tensor& dense);
at::Tensor dequantize_fp8_e5m2(const at::Tensor& weight, const at::Tensor& dense);

// The one of these for a format that has one.
at::Tensor dequantize(weight_format format, const at::Tensor& weight, const at::Tensor& dense);

}  // namespace orrery
