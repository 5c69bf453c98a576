// Tensors of two devices over the same bytes.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/SmallVector.h>

namespace orrery::host {

// A storage over the bytes of another one, which it keeps alive.
c10::Storage share(const c10::Storage& bytes, c10::Device device, c10::Allocator* allocator);

// A tensor with the geometry of `like` over a storage of the given device type.
at::Tensor alias_of(const at::Tensor& like, c10::Storage storage, c10::DispatchKey key);

// The tensor itself if it is a CPU tensor, else a CPU tensor over its bytes.
at::Tensor as_cpu(const at::Tensor& tensor);

// The CPU twins of one call's xpu tensors, and the conversion back.
class twins {
 public:
  explicit twins(c10::Device device) : device_(device) {}

  at::Tensor to_cpu(const at::Tensor& xpu);
  // Of a result: a twin becomes its original, a view of a twin a view of the original, anything else a new xpu tensor.
  at::Tensor to_xpu(const at::Tensor& cpu);
  // Applies to the originals what the call changed in its arguments' geometry or storage (`out=` that grew, resize).
  void sync();

 private:
  struct storage_pair {
    c10::Storage xpu, cpu;
  };
  struct tensor_pair {
    at::Tensor xpu, cpu;
  };

  const c10::Storage& cpu_storage(const c10::Storage& xpu);
  c10::Storage xpu_storage(const c10::Storage& cpu);

  c10::Device device_;
  c10::SmallVector<storage_pair, 6> storages_;
  c10::SmallVector<tensor_pair, 6> tensors_;
};

}  // namespace orrery::host
