// The normalization kernels in bfloat16.
#include <c10/util/BFloat16.h>

#include "norms/fused_norm_kernel.h"

namespace orrery {
template void launch_fused_norm<c10::BFloat16>(c10::Device, const norm_plan&, const norm_operands&);
}
