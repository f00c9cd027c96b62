#include "platform/standalone/cnb/memory_room.h"

#include <algorithm>
#include <sys/sysinfo.h>
#include <utility>

#include "platform/standalone/cnb/small_file.h"

namespace platform {

namespace {

constexpr uint64_t largest_reserve = uint64_t{256} << 20;
constexpr uint64_t kibibyte = 1024;

// Where /proc is missing.
uint64_t counted_by_sysinfo(uint64_t (*bytes_of)(const struct sysinfo&))
{
    struct sysinfo info = {};
    return sysinfo(&info) == 0 ? bytes_of(info) : 0;
}

uint64_t total_of(const struct sysinfo& info)
{
    return uint64_t{info.totalram} * info.mem_unit;
}

uint64_t free_of(const struct sysinfo& info)
{
    return (uint64_t{info.freeram} + info.bufferram) * info.mem_unit;
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
        bytes = counted_by_sysinfo(total_of);
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
    uint64_t bytes =
        kibibytes == no_memory_limit ? counted_by_sysinfo(free_of) : kibibytes * kibibyte;
    for (const memory_cgroup& group : groups_) {
        bytes = std::min(bytes, cgroup_memory_room(group));
    }
    return bytes;
}

uint64_t memory_reserve(uint64_t total)
{
    return std::min(total / 16, largest_reserve);
}

} // namespace platform
