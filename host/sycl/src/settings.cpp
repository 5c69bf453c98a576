// The host device's settings, and the info queries of sycl::device.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "sycl/sycl.hpp"

namespace sycl {

const std::error_category& sycl_category() noexcept {
  struct category final : std::error_category {
    const char* name() const noexcept override { return "sycl"; }
    std::string message(int) const override { return "SYCL error"; }
  };
  static const category one;
  return one;
}

namespace ext::orrery {

namespace {

// The processor's model name, behind a prefix that no GPU's name has.
std::string default_name() {
  std::ifstream info("/proc/cpuinfo");
  std::string line;
  while (std::getline(info, line)) {
    if (line.rfind("model name", 0) == 0) {
      const auto colon = line.find(": ");
      if (colon != std::string::npos) return "Host CPU (" + line.substr(colon + 2) + ")";
    }
  }
  return "Host CPU";
}

uint64_t parse_number(const char* variable, const std::string& text, uint64_t low, uint64_t high) {
  size_t used = 0;
  uint64_t value = 0;
  try {
    if (!text.empty() && text[0] >= '0' && text[0] <= '9') value = std::stoull(text, &used);
  } catch (const std::out_of_range&) {
    used = 0;
  }
  if (used == 0 || used != text.size() || value < low || value > high) {
    throw std::invalid_argument(std::string(variable) + " must be a whole number from " + std::to_string(low) + " to " +
                                std::to_string(high) + ", not '" + text + "'.");
  }
  return value;
}

const char* variable(const char* name) {
  const char* text = std::getenv(name);
  return text && *text ? text : nullptr;
}

settings& current() {
  static settings s = [] {
    settings first;
    first.device_name = default_name();
    return first;
  }();
  return s;
}

}  // namespace

settings settings_from_environment() {
  settings s;
  const char* name = variable("ORRERY_HOST_DEVICE_NAME");
  s.device_name = name ? name : default_name();
  if (const char* text = variable("ORRERY_HOST_MAX_WORK_GROUP_SIZE")) {
    s.max_work_group_size = parse_number("ORRERY_HOST_MAX_WORK_GROUP_SIZE", text, 1, 65536);
  }
  if (const char* text = variable("ORRERY_HOST_DEVICES")) {
    s.device_count = static_cast<int>(parse_number("ORRERY_HOST_DEVICES", text, 1, 64));
  }
  if (const char* text = variable("ORRERY_HOST_SCHEDULE")) {
    const std::string schedule = text, prefix = "shuffle:";
    if (schedule.rfind(prefix, 0) == 0) {
      s.shuffle = true;
      s.seed = parse_number("The seed in ORRERY_HOST_SCHEDULE", schedule.substr(prefix.size()), 0, UINT64_MAX);
    } else if (schedule != "linear") {
      throw std::invalid_argument("ORRERY_HOST_SCHEDULE must be linear or shuffle:SEED, not '" + schedule + "'.");
    }
  }
  return s;
}

void configure(const settings& s) { current() = s; }
const settings& configuration() { return current(); }
queue make_queue(int index) {
  device d;
  d.index_ = index;
  return queue(d);
}

}  // namespace ext::orrery

template <>
std::string device::get_info<info::device::name>() const {
  return ext::orrery::configuration().device_name;
}
template <>
size_t device::get_info<info::device::max_work_group_size>() const {
  return ext::orrery::configuration().max_work_group_size;
}
template <>
uint32_t device::get_info<info::device::max_compute_units>() const {
  return std::max(1u, std::thread::hardware_concurrency());
}
template <>
uint64_t device::get_info<info::device::local_mem_size>() const {
  return 128 * 1024;
}

}  // namespace sycl
