// The memory limits of the control groups that this process is in, of either version of the
// interface.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// One control group's folder.
struct memory_cgroup {
    std::string folder;
    int version; // 1 or 2
};

inline constexpr uint64_t no_memory_limit = UINT64_MAX;

// The process's memory control group and its parents, the innermost first, from the texts of
// /proc/self/cgroup and /proc/self/mountinfo. Empty when there is none. On a machine with both
// versions the groups of version 1 come first, because there the memory is counted by version 1.
std::vector<memory_cgroup> find_memory_cgroups(std::string_view membership,
                                               std::string_view mounts);

// The group's tightest limit in bytes, or no_memory_limit. Considered are the limit at which
// processes are killed, that of memory and swap together (version 1), and the one at which
// processes are throttled (version 2).
uint64_t cgroup_memory_limit(const memory_cgroup& group);

// Bytes that the group may still use under each of those limits, including file cache that the
// kernel can reclaim; no_memory_limit without any limit.
uint64_t cgroup_memory_room(const memory_cgroup& group);

} // namespace platform
