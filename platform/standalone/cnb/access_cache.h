// The access cache beyond platform/cnb.h.
#pragma once

#include "platform/cnb.h"
#include "platform/standalone/cnb/kernel_calls.h"

namespace platform {

// The kernel is asked for this many bytes at a time. Smaller pieces cost more calls; larger ones
// gain nothing, and may make pages present that nobody writes (bench/first_touch_bench.cpp).
inline constexpr uint64_t present_piece = uint64_t{256} << 10;

// At most so much is made present for one request, about 20 ms; the rest is left to the writer.
inline constexpr uint64_t present_at_once = uint64_t{64} << 20;

// Frees a cache (null is fine). Mappings are not the cache's: pointers stay valid.
void free_access_cache(vexa_global_access_cache* cache);

} // namespace platform
