#include "wrap.h"

#include <c10/core/CPUAllocator.h>

#include <cstring>

#include "allocator.h"

namespace orrery::host {
namespace {

void drop_storage(void* kept) { delete static_cast<c10::Storage*>(kept); }

c10::DataPtr share_data(const c10::Storage& bytes, c10::Device device) {
  return {const_cast<void*>(bytes.data()), new c10::Storage(bytes), &drop_storage, device};
}

c10::Storage copy_to(const c10::Storage& bytes, c10::Device device) {
  c10::Allocator& allocator = device_allocator(device.index());
  c10::Storage copy(c10::Storage::use_byte_size_t(), bytes.nbytes(), allocator.allocate(bytes.nbytes()), &allocator,
                    true);
  if (bytes.nbytes()) std::memcpy(copy.mutable_data(), bytes.data(), bytes.nbytes());
  return copy;
}

bool same_geometry(const at::Tensor& a, const at::Tensor& b) {
  return a.sizes() == b.sizes() && a.strides() == b.strides() && a.storage_offset() == b.storage_offset();
}

}  // namespace

c10::Storage share(const c10::Storage& bytes, c10::Device device, c10::Allocator* allocator) {
  return {c10::Storage::use_byte_size_t(), bytes.nbytes(), share_data(bytes, device), allocator, true};
}

at::Tensor alias_of(const at::Tensor& like, c10::Storage storage, c10::DispatchKey key) {
  c10::DispatchKeySet keys(key);
  if (like._is_zerotensor())
    keys = keys.add(c10::DispatchKey::ZeroTensor);  // has no memory; forward-mode AD makes such tensors
  at::Tensor alias = at::detail::make_tensor<c10::TensorImpl>(std::move(storage), keys, like.dtype());
  c10::TensorImpl* impl = alias.unsafeGetTensorImpl();
  impl->set_sizes_and_strides(like.sizes(), like.strides(), like.storage_offset());
  if (like.is_conj()) impl->_set_conj(true);
  if (like.is_neg()) impl->_set_neg(true);
  if (like.unsafeGetTensorImpl()->is_wrapped_number()) impl->set_wrapped_number(true);
  return alias;
}

at::Tensor as_cpu(const at::Tensor& tensor) {
  if (!tensor.defined() || !tensor.is_xpu()) return tensor;
  return alias_of(tensor, share(tensor.storage(), c10::DeviceType::CPU, c10::GetCPUAllocator()), c10::DispatchKey::CPU);
}

const c10::Storage& twins::cpu_storage(const c10::Storage& xpu) {
  for (const auto& pair : storages_)
    if (pair.xpu.is_alias_of(xpu)) return pair.cpu;
  storages_.push_back({xpu, share(xpu, c10::DeviceType::CPU, c10::GetCPUAllocator())});
  return storages_.back().cpu;
}

c10::Storage twins::xpu_storage(const c10::Storage& cpu) {
  for (const auto& pair : storages_)
    if (pair.cpu.unsafeGetStorageImpl() == cpu.unsafeGetStorageImpl()) return pair.xpu;
  c10::Storage xpu =
      has_slack(cpu.data_ptr()) ? share(cpu, device_, &device_allocator(device_.index())) : copy_to(cpu, device_);
  storages_.push_back({xpu, cpu});
  return xpu;
}

at::Tensor twins::to_cpu(const at::Tensor& xpu) {
  at::Tensor cpu = alias_of(xpu, cpu_storage(xpu.storage()), c10::DispatchKey::CPU);
  tensors_.push_back({xpu, cpu});
  return cpu;
}

at::Tensor twins::to_xpu(const at::Tensor& cpu) {
  if (!cpu.defined() || !cpu.is_cpu()) return cpu;
  for (const auto& pair : tensors_)
    if (pair.cpu.is_same(cpu)) return pair.xpu;
  return alias_of(cpu, xpu_storage(cpu.storage()), c10::DispatchKey::XPU);
}

void twins::sync() {
  // A storage that grew has moved; all xpu tensors that share it follow.
  for (const auto& [xpu, cpu] : storages_) {
    if (xpu.data() == cpu.data() && xpu.nbytes() == cpu.nbytes()) continue;
    xpu.unsafeGetStorageImpl()->set_data_ptr_noswap(share_data(cpu, xpu.device()));
    xpu.set_nbytes(cpu.nbytes());
  }
  for (const auto& [xpu, cpu] : tensors_) {
    c10::TensorImpl* impl = xpu.unsafeGetTensorImpl();
    if (c10::Storage storage = xpu_storage(cpu.storage()); !storage.is_alias_of(xpu.storage()))
      impl->set_storage_keep_dtype(std::move(storage));
    if (!same_geometry(xpu, cpu)) impl->set_sizes_and_strides(cpu.sizes(), cpu.strides(), cpu.storage_offset());
    if (xpu.is_conj() != cpu.is_conj()) impl->_set_conj(cpu.is_conj());
    if (xpu.is_neg() != cpu.is_neg()) impl->_set_neg(cpu.is_neg());
  }
}

}  // namespace orrery::host
