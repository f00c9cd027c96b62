// Memory that the process has freed and the C library keeps for later.
#pragma once

#include <cstdint>

namespace platform {

// Notes that much may have been freed: by a client that left, or with a large text.
void note_freed_memory();

// Gives freed memory back to the system after that, at most once a second. Otherwise the worker
// would stay as large as its most demanding client ever made it.
void give_freed_memory_back(uint64_t now_us);

} // namespace platform
