// How much memory the machine can give to this process.
#pragma once

#include <cstddef>
#include <string>

namespace orrery::host {

struct host_memory {
  size_t available;  // bytes, with what the system can reclaim
  size_t total;
};

// Memory and swap of the machine, within the limits of the control groups that this process is in. `root` is put before
// the paths in /proc and /sys.
host_memory measure_host_memory(const std::string& root = "");

}  // namespace orrery::host
