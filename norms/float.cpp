// The normalization kernels in float.
#include "norms/fused_norm_kernel.h"

namespace orrery {
template void launch_fused_norm<float>(c10::Device, const norm_plan&, const norm_operands&);
}
