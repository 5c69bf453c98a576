// A row's entry in a table of kernels: the instance for each kind of device.
#pragma once

#include "linear/dispatch.h"

namespace orrery {

template <typename Launcher>
struct instance_of {
  const char* name = nullptr;
  row_shape shape;
  Launcher* launch = nullptr;
  bool waits = false;  // the host waits for the launch
};

// Class 0, class 5, the others. An empty one stands for that of the others.
template <typename Launcher>
struct instances_of {
  instance_of<Launcher> narrow = {}, wide = {}, vela = {};

  constexpr const instance_of<Launcher>& of(uint32_t device_class) const {
    if (device_class == 0 && wide.launch != nullptr) return wide;
    if (device_class == 5 && vela.launch != nullptr) return vela;
    return narrow;
  }
};

}  // namespace orrery
