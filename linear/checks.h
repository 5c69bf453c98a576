// Checks of a linear layer's sizes and tensors before its kernels are launched.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

#include <stdexcept>
#include <string>

#include "formats/registry.h"

namespace orrery {

[[noreturn]] inline void refuse_code(int32_t qtype) {
  throw std::runtime_error("unsupported qtype: " + std::to_string(qtype));
}

// The number of rows of a weight. The code's block size and state_size are divisors, so a zero and a code without an
// entry are refused.
inline uint64_t checked_rows(const at::Tensor& weight, int32_t qtype, uint64_t state_size) {
  if (qtype < 0 || qtype >= format_codes || block_bytes[qtype] == 0) refuse_code(qtype);
  if (state_size == 0) throw std::runtime_error("orrery_ops: input must have at least one column");
  return rows_of_weight(weight_format{qtype}, weight.size(0), state_size);
}

// Checks the length of a row; a multiple of 0 means no check. The percent signs are literal, and the numbers follow the
// text without a space.
inline void check_row(const char* function, uint64_t state_size, uint64_t multiple,
                      const char* unit = "linear_xpu_kernel") {
  if (multiple == 0 || state_size % multiple == 0) return;
  const std::string size = std::to_string(state_size);
  const std::string text = multiple == 64 ? "%d must be a multiple of 64" + size
                                          : "%d must be a multiple of %d" + size + std::to_string(multiple);
  c10::detail::torchCheckFail(function, unit, __LINE__, text);
}

}  // namespace orrery
