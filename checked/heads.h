// What the operators over [batch, heads, rows, head size] share.
#pragma once

#include <ATen/MemoryOverlap.h>
#include <ATen/core/Tensor.h>

#include "checked/checks.h"

namespace orrery::checked {

inline void check_heads(const at::Tensor& x, const char* name) {
  check_dimensions(x, name, 4, "[batch, heads, rows, head size]");
  const c10::SymInt size = x.sym_size(3);
  TORCH_CHECK_VALUE(size == 64 || size == 96 || size == 128, name, "'s head size must be 64, 96 or 128, not ", size);
}

// The kernels read and write a row's elements with unit stride.
inline bool has_unit_stride(const at::Tensor& x) { return x.stride(3) == 1; }
inline at::Tensor with_unit_stride(const at::Tensor& x) { return has_unit_stride(x) ? x : x.contiguous(); }

// No two elements of a tensor that is written may share memory.
inline void check_written(const at::Tensor& x, const char* name) {
  TORCH_CHECK_VALUE(x.is_meta() || at::has_internal_overlap(x) != at::MemOverlap::Yes, name,
                    " must not be an expanded tensor, since it is written");
}
// Strided views of one tensor may interleave without sharing an element: of those only the first elements are compared.
inline void check_apart(const at::Tensor& x, const char* name, const at::Tensor& other, const char* other_name) {
  if (x.is_meta() || x.numel() == 0 || other.numel() == 0) return;
  const at::MemOverlapStatus status = at::get_overlap_status(x, other);
  const bool shared = status == at::MemOverlapStatus::Full || status == at::MemOverlapStatus::Partial;
  TORCH_CHECK_VALUE(!shared && x.const_data_ptr() != other.const_data_ptr(), name, " and ", other_name,
                    " must not share memory, since both are written");
}

// A tensor that a kernel writes: itself, or packed rows of another type whose values `finish` puts into it.
struct in_place {
  in_place(const at::Tensor& x, at::ScalarType type)
      : rows(x.scalar_type() == type && has_unit_stride(x) ? x : x.to(type, false, true, at::MemoryFormat::Contiguous)),
        to_(x) {}

  void finish() const {
    if (!rows.is_same(to_)) to_.copy_(rows);
  }

  at::Tensor rows;

 private:
  at::Tensor to_;
};

}  // namespace orrery::checked
