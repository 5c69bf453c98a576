// The row of a table that serves a call.
#pragma once

#include <stdexcept>
#include <string>

#include "fused/instances.h"
#include "linear/checks.h"

namespace orrery {

// Throws std::runtime_error, naming the operation, where the table has no kernel for the format on the kind of device.
template <typename Plan, size_t Rows>
const Plan& plan_of(const Plan (&rows)[Rows], weight_format format, uint32_t device_class, const char* operation) {
  const Plan* plan = find_format(rows, format);
  if (plan != nullptr && plan->kernel.of(device_class).launch != nullptr) return *plan;
  const format_row* row = find_weight_format(format);
  if (row == nullptr) refuse_code(code_of(format));
  throw std::runtime_error(std::string("orrery_ops: ") + operation + " has no kernel for " + row->name);
}

// What a plan and its instance bring into a decision; the ranges are the operation's.
template <typename Plan>
linear_decision decision_of(const Plan& plan, uint32_t device_class) {
  const auto& instance = plan.kernel.of(device_class);
  linear_decision way;
  way.kernel = instance.name;
  way.shape = instance.shape;
  way.row_multiple = plan.run;
  way.quantizes_input = plan.quantizes_input;
  return way;
}

}  // namespace orrery
