// A kernel control group that limits the memory of a worker under test. Creating one needs the
// rights for it and a writable hierarchy, which not every machine or container has.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/cgroup_memory.h"

class memory_group {
public:
    // Creates the group below that of the test or, where that fails, beside it. Swap is not
    // available to the group beyond this limit.
    explicit memory_group(uint64_t bytes);
    // Creates a group below another one.
    memory_group(uint64_t bytes, const memory_group& parent);
    memory_group(const memory_group&) = delete;
    memory_group& operator=(const memory_group&) = delete;
    ~memory_group(); // no process may be left in the group

    // Why the group could not be created; empty when it exists.
    const std::string& reason() const { return reason_; }

    // A process joins by writing its number into this file.
    std::string members_file() const { return group_.folder + "/cgroup.procs"; }

    // Number of processes that the kernel has killed for lack of memory.
    uint64_t kills() const;

private:
    bool make_below(const platform::memory_cgroup& parent, uint64_t bytes);

    platform::memory_cgroup group_ = {"", 1};
    std::string reason_;
};
