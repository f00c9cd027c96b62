// The item's standard settings as entries of its metadata, there and back. Names and texts:
// docs/metadata.md. The other calls are those of platform/media_item.h:
// vexa_standard_vars_to_metadata, vexa_print_standard_metadata_state.
#pragma once

#include "platform/metadata.h"

namespace platform {

// Takes the settings that no switch has given from the list. A text that does not parse counts as
// missing.
void take_stored_settings(const metadata_v4_metadata_context* list);

} // namespace platform
