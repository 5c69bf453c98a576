#include "linear_row_launchers.h"

namespace orrery {

namespace {

struct row {
  int32_t qtype;
  void (*launch)(const row_shape&, c10::ScalarType, const row_launch&);
};

constexpr row rows[] = {
    {2, launch_row_q4_0}, {3, launch_row_q4_1}, {6, launch_row_q5_0}, {7, launch_row_q5_1}, {8, launch_row_q8_0},
};

}  // namespace

bool has_single_row(int32_t qtype) {
  for (const row& r : rows) {
    if (r.qtype == qtype) return true;
  }
  return false;
}

void launch_single_row(int32_t qtype, const row_shape& shape, c10::ScalarType type, const row_launch& args) {
  for (const row& r : rows) {
    if (r.qtype == qtype) return r.launch(shape, type, args);
  }
}

}  // namespace orrery
