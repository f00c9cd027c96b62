// How much address space a worker may take: a file that makes a codec ask for more gets an error,
// and the machine goes on.
#pragma once

#include <cstdint>

namespace platform {

struct memory_need {
    uint64_t mapped; // bytes of address space that the process has taken so far
    uint64_t buffer; // bytes of the largest frame buffer that it may be given
    uint64_t memory; // bytes of memory, of the machine or of the control group; 0: unknown
};

// Bytes of address space for what is mapped, the frame buffer, the codecs, and everything else.
uint64_t address_space_limit(const memory_need& need);

// What this process needs, the CNB domain being joined.
memory_need present_memory_need();

// Sets both limits of the process; one that is lower already stays. False when the kernel refuses.
bool limit_address_space(uint64_t bytes);

} // namespace platform
