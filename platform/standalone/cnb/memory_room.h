// How much memory there is for this process, by the machine and by its control groups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/standalone/cnb/cgroup_memory.h"

namespace platform {

class memory_room {
public:
    // Finds the control groups. `root` is put before every path that is read: "" but for tests.
    explicit memory_room(std::string root = "");

    // Bytes of memory, of the machine or of the tightest control group.
    uint64_t total() const;

    // Bytes that can be taken now without swapping anything out or calling for the OOM killer.
    uint64_t available() const;

private:
    std::string root_;
    std::vector<memory_cgroup> groups_; // with `root_` before their folders
};

// What is left untaken by large requests, for everything else: a 16th of the memory, at most 256
// MiB.
uint64_t memory_reserve(uint64_t total);

} // namespace platform
