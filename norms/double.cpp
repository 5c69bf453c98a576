// The normalization kernels in double.
#include "norms/fused_norm_kernel.h"

namespace orrery {
template void launch_fused_norm<double>(c10::Device, const norm_plan&, const norm_operands&);
}
