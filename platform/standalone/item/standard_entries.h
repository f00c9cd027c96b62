// Converts the item's standard settings to entries of its metadata and back. Names and texts:
// docs/metadata.md. The contract's calls are vexa_standard_vars_to_metadata and
// vexa_print_standard_metadata_state of platform/item_metadata.h.
#pragma once

#include "platform/metadata.h"

namespace platform {

// Reads the settings that no switch has specified from the list. A text that does not parse counts
// as missing.
void take_stored_settings(const metadata_v4_metadata_context* list);

} // namespace platform
