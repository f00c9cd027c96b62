// The access cache beyond platform/cnb.h.
#pragma once

#include "platform/cnb.h"
#include "platform/standalone/cnb/kernel_calls.h"

namespace platform {

// Bytes that the kernel is asked for at a time. Smaller pieces cost more calls; larger ones gain
// nothing and may make pages present that nobody writes (bench/first_touch_bench.cpp).
inline constexpr uint64_t present_piece = uint64_t{256} << 10;

// At most this much is made present for one request, which takes about 20 ms. The writer faults in
// the rest.
inline constexpr uint64_t present_at_once = uint64_t{64} << 20;

// Frees a cache (null is fine). The cache owns no mappings, so pointers stay valid.
void free_access_cache(vexa_global_access_cache* cache);

} // namespace platform
