// The normalization kernels in half.
#include <c10/util/Half.h>

#include "norms/fused_norm_kernel.h"

namespace orrery {
template void launch_fused_norm<c10::Half>(c10::Device, const norm_plan&, const norm_operands&);
}
