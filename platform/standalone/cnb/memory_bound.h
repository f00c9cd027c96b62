// Keeps what the process takes beside its frame buffer within the memory that there is: a codec that
// asks for more gets an error, where the kernel would otherwise end the process.
//
// The bound is the soft limit to the address space, since a codec's memory cannot be told from other
// mappings. It is measured anew when the frame buffer has been reserved.
#pragma once

namespace platform {

// From now on the process maps at most half of what memory has room for, all of that once there is a
// frame buffer, and never more than the limit that is in force now. Nothing changes unless the domain
// has been joined.
void start_memory_bound();

// Back to the limit at the start, for the frame buffer, which has been compared with the memory
// already. Does nothing before the start.
void lift_memory_bound();

// By what is mapped and what is available now. Does nothing before the start.
void renew_memory_bound();

// Lifts the bound and forgets it; for tests.
void reset_memory_bound();

} // namespace platform
