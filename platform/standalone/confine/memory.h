// The limit of a worker's address space: when a file makes a codec request more, the codec gets an
// error and the machine stays usable.
#pragma once

#include <cstdint>

namespace platform {

struct memory_need {
    uint64_t mapped; // bytes of address space in use
    uint64_t buffer; // bytes of the largest possible frame buffer
    uint64_t memory; // bytes of memory, of the machine or of the control group; 0: unknown
};

// Bytes of address space for what is mapped, the frame buffer, the codecs and everything else.
uint64_t address_space_limit(const memory_need& need);

// The need of this process. The CNB domain has been joined.
memory_need present_memory_need();

// Sets both limits of the process; a lower limit is kept. False when the kernel refuses.
bool limit_address_space(uint64_t bytes);

} // namespace platform
