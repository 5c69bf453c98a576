// What a kernel over heads and rows knows of a tensor.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <type_traits>

namespace orrery {

// The data of a tensor [batch, head, row, element] and its first strides, in elements.
template <typename T, int Strides>
struct operand {
  T* data = nullptr;
  uint64_t stride[Strides] = {};

  T* at(uint64_t b, uint64_t h) const { return data + b * stride[0] + h * stride[1]; }
  T* at(uint64_t b, uint64_t h, uint64_t r) const { return at(b, h) + r * stride[Strides - 1]; }
};

// Fails as Tensor::data_ptr does if the tensor's type is another one.
template <typename T, int Strides>
operand<T, Strides> operand_of(const at::Tensor& x) {
  operand<T, Strides> o;
  o.data = x.data_ptr<std::remove_const_t<T>>();
  for (int d = 0; d < Strides; ++d) o.stride[d] = static_cast<uint64_t>(x.stride(d));
  return o;
}

}  // namespace orrery
