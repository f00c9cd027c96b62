// A control group of the kernel's that limits the memory of a worker under test. Making one takes the
// rights to do so and a hierarchy that can be written, which not every machine and container has.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/cgroup_memory.h"

class memory_group {
public:
    // Below the group of the test or, where that may have none below it, beside it. Swap does not
    // make its memory any larger.
    explicit memory_group(uint64_t bytes);
    // A group below another one.
    memory_group(uint64_t bytes, const memory_group& parent);
    memory_group(const memory_group&) = delete;
    memory_group& operator=(const memory_group&) = delete;
    ~memory_group(); // nobody must be in it any more

    // Why there is none; empty when there is one.
    const std::string& reason() const { return reason_; }

    // The file that takes the number of a process that is to join.
    std::string members_file() const { return group_.folder + "/cgroup.procs"; }

    // Processes that the kernel has ended for want of memory.
    uint64_t kills() const;

private:
    bool make_below(const platform::memory_cgroup& parent, uint64_t bytes);

    platform::memory_cgroup group_ = {"", 1};
    std::string reason_;
};
