// How much memory there is for this process, limited by the machine and by its control groups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/standalone/cnb/cgroup_memory.h"

namespace platform {

class memory_room {
public:
    // Finds the control groups. `root` is put in front of every path that is read; "" except in
    // tests.
    explicit memory_room(std::string root = "");

    // Bytes of memory, of the machine or of the tightest control group.
    uint64_t total() const;

    // Bytes that can be used now without swapping and without waking the OOM killer.
    uint64_t available() const;

private:
    std::string root_;
    std::vector<memory_cgroup> groups_; // with `root_` before their folders
};

// The memory that large requests leave free for everything else: 1/16 of the total, at most 256
// MiB.
uint64_t memory_reserve(uint64_t total);

} // namespace platform
