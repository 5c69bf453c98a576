// The profiler's scope around an operation.
#pragma once

#include <ATen/core/Tensor.h>
#include <ATen/record_function.h>

#include <vector>

namespace orrery {

// The input list is built only if a listener is active; otherwise a scope costs only that check.
class trace_scope {
 public:
  trace_scope(const char* name, const at::Tensor& recorded) : scope_(at::RecordScope::FUNCTION) {
    if (!scope_.isActive()) return;
    const std::vector<c10::IValue> inputs{recorded};
    if (scope_.needsInputs()) {
      scope_.before(name, c10::ArrayRef<const c10::IValue>(inputs.data(), inputs.size()), -1);
    } else {
      scope_.before(name, -1);
    }
  }

 private:
  at::RecordFunction scope_;
};

}  // namespace orrery
