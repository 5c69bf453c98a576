// rms_norm over rows of any length.
#include <ATen/core/Tensor.h>
#include <ATen/ops/empty_like.h>

#include <cmath>

#include "checked/checks.h"
#include "checked/operators.h"
#include "module/operations.h"

namespace orrery::checked {
namespace {

using at::Tensor;

void check_rms_norm(const Tensor& x, const Tensor& weight, double eps) {
  check_values(x, "x");
  check_on_xpu(x, "x");
  check_same_type(weight, "weight", x, "x");
  check_same_device(weight, "weight", x, "x");
  TORCH_CHECK_VALUE(x.dim() > 0, "x must have at least one dimension");
  TORCH_CHECK_VALUE(weight.dim() == 1 && weight.sym_size(0) == x.sym_size(-1), "weight must be [", x.sym_size(-1),
                    "] for rows of ", x.sym_size(-1), " elements, not ", weight.sym_sizes());
  TORCH_CHECK_VALUE(std::isfinite(eps) && eps >= 0, "eps must be finite and not negative, not ", eps);
}

// Rows that the kernel takes: whole blocks of 32 elements that fit into its local memory as floats.
constexpr bool taken_by_kernel(int64_t elements) { return elements % 32 == 0 && elements <= 32 * 1024 / 4; }

// The other rows.
Tensor normalized(const Tensor& x, const Tensor& weight, double eps) {
  return x.mul(x.square().mean(-1, true).add(eps).rsqrt()).mul(weight);
}

}  // namespace

Tensor rms_norm(const Tensor& x, const Tensor& weight, double eps) {
  check_rms_norm(x, weight, eps);
  const int64_t elements = x.size(-1);
  if (x.numel() == 0) return at::empty_like(x, at::MemoryFormat::Contiguous);
  // bfloat16 goes through float, not through half as the operation would: half ends at 65504.
  const at::ScalarType type = x.scalar_type(), inner = type == at::kBFloat16 ? at::kFloat : type;
  const bool by_kernel = inner != at::kDouble && taken_by_kernel(elements);
  if (!by_kernel) {
    const at::ScalarType wide = type == at::kDouble ? at::kDouble : at::kFloat;
    return normalized(x.to(wide), weight.to(wide), eps).to(type).contiguous();
  }
  const Tensor rows = (x.dim() == 2 ? x : x.reshape({-1, elements})).to(inner).contiguous();
  const Tensor y = orrery::rms_norm(weight.to(inner).contiguous(), rows, static_cast<float>(eps)).to(type);
  return x.dim() == 2 ? y : y.view(x.sizes());
}

Tensor meta::rms_norm(const Tensor& x, const Tensor& weight, double eps) {
  check_rms_norm(x, weight, eps);
  return at::empty_like(x, at::MemoryFormat::Contiguous);
}

}  // namespace orrery::checked
