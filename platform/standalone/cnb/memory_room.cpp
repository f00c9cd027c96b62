#include "platform/standalone/cnb/memory_room.h"

#include <algorithm>
#include <sys/sysinfo.h>
#include <utility>

#include "platform/standalone/cnb/small_file.h"

namespace platform {

namespace {

constexpr uint64_t max_reserve = uint64_t{256} << 20;
constexpr uint64_t kibibyte = 1024;

// Used where /proc cannot be read.
uint64_t total_by_sysinfo()
{
    struct sysinfo info = {};
    return sysinfo(&info) == 0 ? uint64_t{info.totalram} * info.mem_unit : 0;
}

// This interface does not say how much of the used memory is file cache, so at least half of the
// memory counts as available.
uint64_t available_by_sysinfo()
{
    struct sysinfo info = {};
    const uint64_t free = sysinfo(&info) == 0 ? uint64_t{info.freeram} * info.mem_unit : 0;
    return std::max(free, total_by_sysinfo() / 2);
}

} // namespace

memory_room::memory_room(std::string root)
    : root_(std::move(root)),
      groups_(find_memory_cgroups(read_small_file(root_ + "/proc/self/cgroup"),
                                  read_small_file(root_ + "/proc/self/mountinfo")))
{
    for (memory_cgroup& group : groups_) {
        group.folder.insert(0, root_);
    }
}

uint64_t memory_room::total() const
{
    const std::string text = read_small_file(root_ + "/proc/meminfo");
    uint64_t bytes = number_of_line(text, "MemTotal:", 0) * kibibyte;
    if (bytes == 0) {
        bytes = total_by_sysinfo();
    }
    for (const memory_cgroup& group : groups_) {
        bytes = std::min(bytes, cgroup_memory_limit(group));
    }
    return bytes;
}

uint64_t memory_room::available() const
{
    const std::string text = read_small_file(root_ + "/proc/meminfo");
    const uint64_t kibibytes = number_of_line(text, "MemAvailable:", no_memory_limit);
    uint64_t bytes = kibibytes == no_memory_limit ? available_by_sysinfo() : kibibytes * kibibyte;
    for (const memory_cgroup& group : groups_) {
        bytes = std::min(bytes, cgroup_memory_room(group));
    }
    return bytes;
}

uint64_t memory_reserve(uint64_t total)
{
    return std::min(total / 16, max_reserve);
}

} // namespace platform
