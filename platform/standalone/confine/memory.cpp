#include "platform/standalone/confine/memory.h"

#include <algorithm>
#include <limits>
#include <sys/resource.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/memory_room.h"

namespace platform {

namespace {

// Limit of what a codec needs beside the frame buffer. The largest legitimate demands are the
// coefficients of a progressive CMYK JPEG (2 GiB), the rasters of an animation that fills a frame
// buffer (below 3 GiB) and the pixels of a lossless WebP (1 GiB).
constexpr uint64_t max_for_codecs = uint64_t{4} << 30;

// Clients, their queues, the document, the metadata, messages.
constexpr uint64_t everything_else = uint64_t{256} << 20;

} // namespace

uint64_t address_space_limit(const memory_need& need)
{
    const uint64_t codecs =
        need.memory == 0 ? max_for_codecs : std::min(max_for_codecs, need.memory / 2);
    uint64_t sum = saturating_add(need.mapped, everything_else);
    sum = saturating_add(sum, need.buffer);
    return saturating_add(sum, codecs);
}

memory_need present_memory_need()
{
    return {.mapped = mapped_memory(),
            .buffer = std::min(largest_buffer(), domain_limit()),
            .memory = memory_room().total()};
}

bool limit_address_space(uint64_t bytes)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_AS, &limit) != 0) {
        return false;
    }
    const auto wanted =
        static_cast<rlim_t>(std::min<uint64_t>(bytes, std::numeric_limits<rlim_t>::max()));
    limit.rlim_cur = std::min(limit.rlim_cur, wanted);
    limit.rlim_max = std::min(limit.rlim_max, wanted);
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

} // namespace platform
