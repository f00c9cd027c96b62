// Metadata that clients set while the item is served: shown at once, appended to this worker's
// pending file at once, and put into the item's metadata file now and then.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

enum class setting_state {
    REFUSED,    // nothing has changed
    STORED,     // it survives the death of this process
    NOT_STORED, // it is set, but is lost with this process
    WAITS,      // it is set; the next write of the item's file decides whether it is stored
};

// Takes a client's metadata value: into the document and into the pending file at once, into the
// item's file within about a second, whatever the number of calls. To be called before
// vexa_on_metadata_set. REFUSED when the name or the value may not be set: facts that the worker
// itself finds out, values of a known name that do not parse, texts with a NUL, or more than
// docs/metadata.md allows.
setting_state store_client_setting(std::string_view name, std::string_view value);

// What has become of the last value that was taken for this name; never REFUSED.
setting_state client_setting_state(std::string_view name);

// Writes now what the item's file does not hold yet, and tries once more when that fails; after it
// nothing WAITS. For the end of the process, or of the service.
void store_client_settings_now();

// For people: why settings are NOT_STORED.
std::string why_settings_are_not_stored();

// Writes what is waiting when it has waited for a second; after a failure less and less often.
// Without anything waiting it costs nothing.
void store_waiting_settings(uint64_t now_us);

// Forgets what is waiting, unwritten. The pending file stays for the next start.
void reset_client_settings();

} // namespace platform
