// One launcher a format, each in a unit of its own.
#pragma once

#include "linear_kernels.h"

namespace orrery {

void launch_row_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q4_1(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q5_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q5_1(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q8_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);

}  // namespace orrery
