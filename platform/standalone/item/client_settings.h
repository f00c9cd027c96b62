// Metadata that clients set while the item is served: visible at once, appended to this worker's
// pending file at once, and written to the item's metadata file from time to time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/standalone/report/document.h"

namespace platform {

enum class setting_state {
    REFUSED,    // nothing has changed
    STORED,     // it survives a crash of this process
    NOT_STORED, // it is set, but lost when this process ends
    WAITS,      // it is set; the next write of the item's file decides whether it is stored
};

// Accepts a client's metadata value: it is put into the document and the pending file at once, and
// into the item's file within about a second, however many calls there are. To be called before
// vexa_on_metadata_set. REFUSED when the name or the value is not permitted: facts that the worker
// determines itself, values of a known name that do not parse, texts with a NUL, or more than
// docs/metadata.md allows.
setting_state store_client_setting(std::string_view name, std::string_view value);

// The state of the last value that was accepted for this name; never REFUSED.
setting_state client_setting_state(std::string_view name);

// Writes now what is not in the item's file yet, and retries once after a failure; afterwards
// nothing WAITS. For the end of the process or of the service.
void store_client_settings_now();

// What would be lost if the process ended now, for the status document.
unstored_settings settings_not_stored();

// For people: why settings are NOT_STORED.
std::string why_settings_are_not_stored();

// Carries out the next step of writing settings that have waited for a second; after failures the
// retries become rarer. Returns 1 when there was something to do; more may follow. Costs nothing
// while nothing waits.
int store_waiting_settings(uint64_t now_us);

// True while a write is going on.
bool settings_are_written();

// Discards waiting settings without writing them. The pending file stays for the next start.
void reset_client_settings();

} // namespace platform
