// The kernels of the xpu device.
#pragma once

namespace orrery::host {

void register_kernels();

}  // namespace orrery::host
