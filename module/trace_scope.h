// The profiler's scope around an operation.
#pragma once

#include <ATen/core/Tensor.h>
#include <ATen/record_function.h>

#include <optional>
#include <utility>
#include <vector>

namespace orrery {

// The input list is built only if a listener is active; otherwise a scope costs only that check. A RecordFunction
// checks too, but making and ending one is 25 cache lines of code on six pages: 3 us of a call with cold caches.
class trace_scope {
 public:
  trace_scope(const char* name, const at::Tensor& recorded) {
    if (auto listeners = at::getStepCallbacksUnlessEmpty(at::RecordScope::FUNCTION)) {
      scope_.emplace(std::move(*listeners));
      record(name, recorded);
    }
  }

 private:
  void record(const char* name, const at::Tensor& recorded) {
    const std::vector<c10::IValue> inputs{recorded};
    if (scope_->needsInputs()) {
      scope_->before(name, c10::ArrayRef<const c10::IValue>(inputs.data(), inputs.size()), -1);
    } else {
      scope_->before(name, -1);
    }
  }

  std::optional<at::RecordFunction> scope_;
};

}  // namespace orrery
