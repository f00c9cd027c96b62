// State that the sources of the scripted platform share.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/metadata.h"

struct metadata_v4_metadata_context {
    struct owned_entry {
        std::string name;
        std::string value;
        metadata_v4_entry head;
    };
    std::vector<std::unique_ptr<owned_entry>> entries; // null: freed
    bool closed = false;
};

namespace scripted {

extern metadata_v4_context the_context;
extern metadata_v4_metadata_context the_list;
extern uint64_t clock_us;
extern int handles_given;

// Counts down; true for the call that reaches 0.
inline bool counts_out(int& countdown)
{
    return countdown > 0 && --countdown == 0;
}

void reset_clients();

} // namespace scripted
