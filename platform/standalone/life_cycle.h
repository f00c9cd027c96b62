// The item from process start to its end. The contract's calls are
// open_missing_standard_descriptors, vexa_standard_to_derived_params, vexa_join_cnb_domain and
// vexa_free_all of platform/start_up.h, and vexa_idle_housekeeping of platform/serving.h.
#pragma once

namespace platform {

// Resets everything of the item to the values at program start, for tests and fuzzers:
// vexa_free_all, and all settings.
void reset_item();

} // namespace platform
