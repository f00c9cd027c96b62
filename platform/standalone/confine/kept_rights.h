// What a captured worker must not do to others although a worker does it to its own files: remove
// and rename them, write its record of the domain, notify its manager. The calls are tied to these
// files by the number of a descriptor and by the address of a name.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/standalone/base/kept_names.h"
#include "platform/standalone/confine/call_conditions.h"

namespace platform {

struct kept_rights {
    std::vector<kept_places> folders; // whose named files may be removed and renamed
    uintptr_t end_of_names = 0;       // nothing below is mapped again; 0: no names
    int registry = -1;                // the domain's; -1: none
    uint32_t registry_offset = 0;     // of the worker's own record, all that it may write; 0: none
    uint32_t registry_size = 0;       // of a record
    int manager = -1;                 // datagram socket, connected to the service manager; -1: none
};

std::vector<call_condition> conditions_of(const kept_rights& rights);

// Copies the names and restricts the calls. False when the kernel cannot do this or does not permit
// it. Then all files may be removed that the rules for files permit, and the descriptors are free.
bool keep_own_files(const std::vector<kept_folder>& folders, kept_rights rights);

} // namespace platform
