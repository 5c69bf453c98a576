// What the host device offers beyond the standard: its settings, the record of launches, and code locations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#define ORRERY_SYCL_API __attribute__((visibility("default")))

namespace sycl {
class event;
class queue;
}  // namespace sycl

namespace sycl::ext::orrery {

struct settings {
  std::string device_name;
  size_t max_work_group_size = 1024;
  int device_count = 1;
  bool shuffle = false;  // run work-groups, and strands between barriers, in an order drawn from `seed`
  uint64_t seed = 0;
};

// Reads ORRERY_HOST_DEVICE_NAME, _MAX_WORK_GROUP_SIZE, _DEVICES and _SCHEDULE. Throws std::invalid_argument with one
// sentence for a value that cannot be read.
ORRERY_SYCL_API settings settings_from_environment();
ORRERY_SYCL_API void configure(const settings& s);
ORRERY_SYCL_API const settings& configuration();

struct code_location {
  const char* file = "";
  const char* function = "";
  uint32_t line = 0;
  uint32_t column = 0;
};

// One kernel that a queue ran.
struct launch_record {
  std::optional<std::string> name;  // the profiler record's name, none if no record was made
  std::string kernel;               // the functor's name without namespace and template arguments
  std::string instance;             // its template arguments
  std::string file, function;
  uint32_t line = 0, column = 0;
  std::vector<size_t> global_size, local_size;
  int sub_group_size = 0;
  size_t local_memory = 0;  // bytes
  bool waited = false;      // the host called wait() on the event before the record
  int device = 0;
  double seconds = 0;
};

// Record every launch of the calling thread between the two calls, which nest. recording_end throws if no recording is
// open.
ORRERY_SYCL_API void recording_begin();
ORRERY_SYCL_API std::vector<launch_record> recording_end();

// The profiler record of a launch. It has an effect only on the thread that launched.
ORRERY_SYCL_API void record(const std::string& name, const event& e);

ORRERY_SYCL_API queue make_queue(int device);

}  // namespace sycl::ext::orrery
