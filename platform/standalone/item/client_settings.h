// Metadata that clients set while the item is served: shown at once, stored in the item's file now
// and then. The call is store_client_setting of item_state.h.
#pragma once

#include <cstdint>

namespace item {

// Writes what is waiting when it has waited for a second; after a failure less and less often.
// Without anything waiting it costs nothing.
void store_waiting_settings(uint64_t now_us);

// Writes what is waiting now. For the end of the process.
void store_all_settings();

// Forgets what is waiting, unwritten.
void reset_client_settings();

} // namespace item
