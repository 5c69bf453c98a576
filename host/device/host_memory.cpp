#include "host_memory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>

namespace orrery::host {
namespace {

using names = std::array<std::string_view, 2>;

// The files of one version of control groups. Its memory.stat includes child groups.
struct group_files {
  const char* mount;
  const char* limit;
  const char* usage;
  names reclaimable;
};

const group_files version_1 = {"/sys/fs/cgroup/memory",
                               "memory.limit_in_bytes",
                               "memory.usage_in_bytes",
                               {"total_inactive_file", "total_active_file"}};
const group_files version_2 = {"/sys/fs/cgroup", "memory.max", "memory.current", {"inactive_file", "active_file"}};

// No value if the file is missing or says "max".
std::optional<size_t> number_in(const std::string& path) {
  std::ifstream file(path);
  size_t number;
  return file >> number ? std::optional(number) : std::nullopt;
}

// The sum of the named numbers in a file of lines "name[:] number [kB]".
size_t sum_in(const std::string& path, const names& wanted) {
  std::ifstream file(path);
  size_t sum = 0;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string name, unit;
    size_t number = 0;
    words >> name >> number >> unit;
    if (name.ends_with(':')) name.pop_back();
    if (std::ranges::find(wanted, name) != wanted.end()) sum += unit == "kB" ? number * 1024 : number;
  }
  return sum;
}

void keep_within(host_memory& memory, const group_files& files, const std::string& group) {
  const auto limit = number_in(group + "/" + files.limit);
  const auto usage = number_in(group + "/" + files.usage);
  if (!limit || !usage) return;
  const size_t reclaimable = std::min(*usage, sum_in(group + "/memory.stat", files.reclaimable));
  const size_t used = *usage - reclaimable;
  memory.total = std::min(memory.total, *limit);
  memory.available = std::min(memory.available, *limit > used ? *limit - used : 0);
}

}  // namespace

host_memory measure_host_memory(const std::string& root) {
  const std::string meminfo = root + "/proc/meminfo";
  host_memory memory{sum_in(meminfo, {"MemAvailable", "SwapFree"}), sum_in(meminfo, {"MemTotal", "SwapTotal"})};
  if (memory.total == 0) return {SIZE_MAX, SIZE_MAX};  // unknown, so nothing is refused

  std::ifstream groups(root + "/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {  // "number:controllers:/path"
    const size_t first = line.find(':'), second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const auto controllers = std::string_view(line).substr(first + 1, second - first - 1);
    const bool is_version_2 = controllers.empty();
    if (!is_version_2 && controllers.find("memory") == controllers.npos) continue;
    const group_files& files = is_version_2 ? version_2 : version_1;
    // The limits of all parent groups hold too. In a container the path may be one of the machine outside; groups that
    // are missing inside are skipped.
    for (std::string path = line.substr(second + 1);; path.resize(path.rfind('/'))) {
      keep_within(memory, files, root + files.mount + path);
      if (path.find('/') == std::string::npos) break;
    }
  }
  return memory;
}

}  // namespace orrery::host
