// The device has to be there before the operators are.
#pragma once

#include <string>

namespace orrery {

// Imports `torch` if no device is registered yet: this module may be imported first, and `torch` may register the
// device. Throws std::runtime_error with the reason if that fails, unless this PyTorch was built without xpu.
void bring_device();

// What the import of the module raises without a device.
inline std::string without_device(const std::string& why) { return "orrery_ops needs an xpu device: " + why; }

}  // namespace orrery
