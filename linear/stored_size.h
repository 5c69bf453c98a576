// The padded size in which a weight must be stored for its kernels to be right.
#pragma once

#include <cstdint>
#include <optional>

#include "formats/registry.h"

namespace orrery {

struct matrix_size {
  int64_t rows = 0, columns = 0;
};

// A matrix's size with the padding that makes all kernels right that may be chosen for it, whatever the number of input
// rows: on a device of that class or, without one, on all. Some kernels take rows of the weight in pairs and drop a
// last single one, some expand eight blocks at a time and end the process where blocks are left over, some read whole
// groups of blocks in each row.
matrix_size stored_size(weight_format format, matrix_size size, std::optional<uint32_t> device_class = {});

}  // namespace orrery
