#include "linear/stored_size.h"

#include <algorithm>

#include "linear/instances.h"

namespace orrery {

matrix_size stored_size(weight_format format, matrix_size size, std::optional<uint32_t> device_class) {
  const format_plan& plan = *find_format(plans, format);
  const auto multiple_of = [](int64_t unit, int64_t count) { return (count + unit - 1) / unit * unit; };
  int64_t row_unit = block_elems[code_of(format)];
  if (plan.one_row.whole_passes) {
    // Without a class, class 0, whose work-groups are the largest.
    row_unit = std::max<int64_t>(row_unit, 2 * plan.one_row.kernel.of(device_class.value_or(0)).shape.work_group);
  }
  size.columns = multiple_of(row_unit, size.columns);
  const bool drops_odd = std::ranges::any_of(plan.pairs, [](const auto& p) { return p.limit != 0 && !p.rounds_up; });
  int64_t rows = drops_odd ? 2 : 1;
  const auto together = static_cast<int64_t>(plan.blocks.blocks);
  while (together != 0 && rows * size.columns / 64 % together != 0) rows *= 2;
  size.rows = multiple_of(rows, size.rows);
  return size;
}

}  // namespace orrery
