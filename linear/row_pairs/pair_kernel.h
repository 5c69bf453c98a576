// Matrix-vector kernels for a few input rows: the one-row kernel on pairs of input rows, in two dimensions.
#pragma once

#include "linear/one_row/row_kernel.h"

namespace orrery {

template <typename Format, typename T, int SG, int WG>
using pair_kernel = row_kernel<Format, T, SG, WG, 2, 2>;

}  // namespace orrery
