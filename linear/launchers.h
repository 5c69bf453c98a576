// Launchers by format: for one input row, and for a few.
#pragma once

#include "linear/launch.h"

namespace orrery {

void launch_row_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q4_1(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q5_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q5_1(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q8_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_nf4(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_nf3(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_fp8_e4m3(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_fp4(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_fp8_e5m2(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_fp6(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_iq2_xxs(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q2_k(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_iq1_s(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q4_k(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q5_k(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_row_q6_k(const row_shape& shape, c10::ScalarType type, const row_launch& args);

void launch_batch_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_by_batch_q4_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_batch_q4_1(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_batch_q8_0(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_batch_nf4(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_batch_fp4(const row_shape& shape, c10::ScalarType type, const row_launch& args);
void launch_batch_fp8_e5m2(const row_shape& shape, c10::ScalarType type, const row_launch& args);

}  // namespace orrery
