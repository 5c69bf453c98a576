// What PyTorch asks of an accelerator besides streams: counts, the current device, random generators.
#pragma once

#include <ATen/core/Generator.h>

namespace orrery::host {

void register_hooks();

const at::Generator& default_generator(c10::DeviceIndex device);

// The CPU generator that an xpu generator draws from.
const at::Generator& cpu_generator_of(const at::Generator& generator);

}  // namespace orrery::host
