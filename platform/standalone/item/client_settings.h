// Metadata that clients set while the item is served: shown at once, appended to this worker's
// pending file at once, and put into the item's metadata file now and then. The calls of clients are
// store_client_setting and its like in item_state.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace item {

// Writes what is waiting when it has waited for a second; after a failure less and less often.
// Without anything waiting it costs nothing.
void store_waiting_settings(uint64_t now_us);

// What would be lost if the process died now.
struct unstored_settings {
    static constexpr size_t max_names = 100;
    size_t count = 0;
    std::vector<std::string> names; // the first of them
    std::string reason;
};
unstored_settings settings_not_stored();

// Forgets what is waiting, unwritten. The pending file stays for the next start.
void reset_client_settings();

} // namespace item
