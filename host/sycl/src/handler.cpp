// The checks, the profiler's scope and the record of every launch.
#include <ATen/record_function.h>

#include <chrono>
#include <optional>

#include "launch.hpp"

namespace sycl {

namespace {

// A launch as an event of PyTorch's profiler. Its name is the functor's: the profiler record has one name for whole
// families ("gridrun_kernel") or none, and is made after the launch. The name has no template arguments, so that a
// table by name adds up the types and sub-group sizes of a kernel. While no profiler listens, it costs one check.
class launch_scope {
 public:
  explicit launch_scope(const std::type_info& kernel) {
    if (auto listeners = at::getStepCallbacksUnlessEmpty(at::RecordScope::FUNCTION)) {
      scope_.emplace(std::move(*listeners));
      scope_->before(detail::kernel_name(kernel));
    }
  }

 private:
  std::optional<at::RecordFunction> scope_;
};

}  // namespace

void handler::check(std::span<const size_t> global, std::span<const size_t> local) {
  if (detail::inside_kernel()) throw exception(errc::invalid, "A kernel may not launch another kernel.");
  if (has_kernel_) throw exception(errc::invalid, "A command group may have one kernel only.");
  has_kernel_ = true;
  const uint64_t limit = device_.get_info<info::device::local_mem_size>();
  if (local_requested_ > limit) {
    throw exception(errc::memory_allocation, "A command group's " + std::to_string(local_requested_) +
                                                 " bytes of local memory are beyond the device's limit of " +
                                                 std::to_string(limit) + ".");
  }
  detail::check_ranges(global.data(), local.data(), static_cast<int>(global.size()));
}

void handler::run(const detail::launch_plan& plan, std::span<const size_t> global, std::span<const size_t> local,
                  const std::type_info& kernel) {
  using clock = std::chrono::steady_clock;
  check(global, local);
  const launch_scope scope(kernel);
  const bool recorded = detail::recording();
  const auto start = recorded ? clock::now() : clock::time_point();  // reading the clock is a third of an empty launch
  if (plan.groups > 0) detail::run(plan);
  if (!recorded) return;
  ext::orrery::launch_record r;
  r.seconds = std::chrono::duration<double>(clock::now() - start).count();
  r.file = where_.file;
  r.function = where_.function;
  r.line = where_.line;
  r.column = where_.column;
  r.global_size.assign(global.begin(), global.end());
  r.local_size.assign(local.begin(), local.end());
  r.sub_group_size = plan.sub_group_size;
  r.local_memory = local_requested_;
  r.device = device_.index_;
  launch_ = detail::add_record(std::move(r), kernel);
}

}  // namespace sycl
