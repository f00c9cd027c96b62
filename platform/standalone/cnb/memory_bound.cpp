// Codecs are written in C and handle a failed allocation. The worker's own objects come from
// operator new, where a failure would end the worker. So a further part of the address space, small
// compared with the memory reserve, is set aside for them.
#include "platform/standalone/cnb/memory_bound.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/cnb/cgroup_memory.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/small_file.h"

namespace platform {

namespace {

constexpr uint64_t own_step = uint64_t{256} << 10;

struct memory_bound {
    bool started = false;
    rlim_t ceiling = RLIM_INFINITY; // the soft limit at the start
    uint64_t own_share = 0;         // bytes set aside for the worker's own objects ...
    uint64_t own_left = 0;          // ... and not yet used by them
};

memory_bound bound;

rlim_t limit_now()
{
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_AS, &limit);
    return limit.rlim_cur;
}

bool set_limit(uint64_t bytes)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_AS, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = std::min<rlim_t>(bytes, bound.ceiling);
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

void bind(const memory_shares& shares, uint64_t divisor)
{
    bound.own_share = shares.own_objects;
    bound.own_left = shares.own_objects;
    const bool known = shares.codecs != no_memory_limit;
    set_limit(known ? saturating_add(mapped_memory(), shares.codecs / divisor) : no_memory_limit);
}

// After a request that is too large even so, the rest of the share is kept for later requests.
void take_back_share()
{
    const uint64_t limit = limit_now();
    const uint64_t mapped = mapped_memory();
    const uint64_t unused =
        std::min(limit - std::min(limit, mapped), bound.own_share - bound.own_left);
    if (set_limit(limit - unused)) {
        bound.own_left += unused;
    }
}

// Called by operator new until it succeeds or this throws.
void give_from_share()
{
    const uint64_t limit = limit_now();
    const uint64_t below_ceiling = bound.ceiling - std::min<uint64_t>(bound.ceiling, limit);
    const uint64_t step = std::min({bound.own_left, own_step, below_ceiling});
    if (step == 0 || !set_limit(limit + step)) {
        take_back_share();
        throw std::bad_alloc();
    }
    bound.own_left -= step;
}

} // namespace

uint64_t mapped_memory()
{
    const uint64_t pages = leading_number(read_small_file("/proc/self/statm"), 0);
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void start_memory_bound()
{
    bound.ceiling = limit_now();
    bound.started = true;
    bind(memory_beside_buffers(), 2);
    std::set_new_handler(give_from_share);
}

void lift_memory_bound()
{
    if (bound.started) {
        set_limit(bound.ceiling);
    }
}

void renew_memory_bound()
{
    if (bound.started) {
        bind(memory_beside_buffers(), 1);
    }
}

void reset_memory_bound()
{
    lift_memory_bound();
    if (bound.started) {
        std::set_new_handler(nullptr);
    }
    bound = {};
}

} // namespace platform
