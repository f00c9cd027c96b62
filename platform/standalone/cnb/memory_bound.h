// Keeps the memory that the process uses beside its frame buffer within what is available: a codec
// that requests more gets an error, instead of the kernel killing the process.
//
// The bound is the soft limit of the address space, because a codec's memory cannot be
// distinguished from other mappings. It is calculated again when the frame buffer has been
// reserved.
#pragma once

#include <cstdint>

namespace platform {

// Bytes of address space that the process has mapped now.
uint64_t mapped_memory();

// From now on the process maps at most what fits into memory (half of that until there is a frame
// buffer), and never more than the limit that is in force now. The domain has been joined;
// otherwise nothing changes.
void start_memory_bound();

// Restores the limit at the start, for the frame buffer, whose size has already been compared with
// the memory. Does nothing before the start.
void lift_memory_bound();

// Calculates the bound from what is mapped and available now. Does nothing before the start.
void renew_memory_bound();

// Lifts the bound and forgets it; for tests.
void reset_memory_bound();

} // namespace platform
