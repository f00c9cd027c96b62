// The item from process entry to its end. The calls are open_missing_standard_descriptors,
// vexa_standard_to_derived_params, vexa_join_cnb_domain, vexa_idle_housekeeping and vexa_free_all of platform/media_item.h.
#pragma once

namespace platform {

// Everything of the item as at program start, for tests and fuzzers: vexa_free_all, and all
// settings.
void reset_item();

} // namespace platform
