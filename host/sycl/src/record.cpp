// The record of launches that tests and the benchmarks read. Each thread has its own, so there is no lock that a fork
// could copy while it is held.
#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "launch.hpp"

namespace sycl {

namespace {

struct numbered {
  uint64_t launch;
  ext::orrery::launch_record record;
};

thread_local std::vector<std::vector<numbered>> open_lists;
// One counter for all threads: an event that is passed to another thread must not match a record there.
std::atomic<uint64_t> last_launch{0};

std::string demangled(const std::type_info& type) {
  int status = 0;
  char* text = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = status == 0 ? text : type.name();
  std::free(text);
  return name;
}

struct kernel_names {
  std::string kernel, instance;
};

// "a<b::c>::kernel<c10::Half, 16>" is the kernel "kernel" and the instance "c10::Half, 16".
kernel_names names_of(const std::type_info& kernel) {
  const std::string type = demangled(kernel);
  size_t start = 0;
  int depth = 0;
  for (size_t i = 0; i + 1 < type.size(); ++i) {
    if (std::strchr("<({[", type[i])) ++depth;
    if (std::strchr(">)}]", type[i])) --depth;
    if (depth == 0 && type[i] == ':' && type[i + 1] == ':') start = i + 2;
  }
  const size_t open = type.find('<', start);
  kernel_names names{type.substr(start, open - start), ""};
  if (open != std::string::npos) names.instance = type.substr(open + 1, type.rfind('>') - open - 1);
  return names;
}

template <typename F>
void each_record(uint64_t launch, F f) {
  for (auto& list : open_lists) {
    for (auto entry = list.rbegin(); entry != list.rend(); ++entry) {
      if (entry->launch == launch) f(entry->record);
    }
  }
}

}  // namespace

namespace detail {

bool recording() { return !open_lists.empty(); }

std::string kernel_name(const std::type_info& kernel) { return names_of(kernel).kernel; }

uint64_t add_record(ext::orrery::launch_record r, const std::type_info& kernel) {
  kernel_names names = names_of(kernel);
  r.kernel = std::move(names.kernel);
  r.instance = std::move(names.instance);
  const uint64_t launch = ++last_launch;
  for (auto& list : open_lists) list.push_back({launch, r});
  return launch;
}

}  // namespace detail

void event::wait() {
  if (launch_) {
    each_record(launch_, [](ext::orrery::launch_record& r) {
      if (!r.name) r.waited = true;
    });
  }
}

namespace ext::orrery {

void recording_begin() { open_lists.emplace_back(); }

std::vector<launch_record> recording_end() {
  if (open_lists.empty()) throw exception(errc::invalid, "This thread collects no launches.");
  std::vector<launch_record> records;
  for (auto& entry : open_lists.back()) records.push_back(std::move(entry.record));
  open_lists.pop_back();
  return records;
}

void record(const std::string& name, const event& e) {
  if (e.launch_) each_record(e.launch_, [&](launch_record& r) { r.name = name; });
}

}  // namespace ext::orrery

}  // namespace sycl
