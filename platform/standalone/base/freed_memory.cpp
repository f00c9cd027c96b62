#include "platform/standalone/base/freed_memory.h"

#include <features.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace platform {

namespace {

constexpr uint64_t gap_us = 1'000'000;

bool freed = false;
uint64_t next_us = 0;

} // namespace

void note_freed_memory()
{
    freed = true;
}

void give_freed_memory_back(uint64_t now_us)
{
    if (!freed || now_us < next_us) {
        return;
    }
    freed = false;
    next_us = now_us + gap_us;
#ifdef __GLIBC__ // other C libraries keep little
    malloc_trim(0);
#endif
}

} // namespace platform
