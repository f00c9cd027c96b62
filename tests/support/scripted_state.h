// Between the scripted platform's own sources.
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
    std::vector<std::unique_ptr<owned_entry>> entries; // null: a hole
    bool closed = false;
};

namespace scripted {

extern metadata_v4_context the_context;
extern metadata_v4_metadata_context the_list;
extern uint64_t clock_us;
extern int handles_given;

// True when a countdown of the script has reached its call.
inline bool counts_out(int& countdown)
{
    return countdown > 0 && --countdown == 0;
}

void reset_clients();

} // namespace scripted
