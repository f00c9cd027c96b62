// What the item's units know of each other: progress, readiness, the status document, the socket's
// path and the lock under which it is served. Written by the item's own units, read by the clients'
// unit. See also clients.h for the other direction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// --- progress; written by vexa_status_write and vexa_ready_write --------------------------------

int progress_percent();           // -1 (a refusal) to 100; 0 at program start
std::string_view progress_text(); // valid UTF-8 without control characters, at most 512 bytes
int ready_state();                // 0 not yet, -1 provisional, 1 final

// --- status document ----------------------------------------------------------------------------

// The document as JSON text on one line, valid UTF-8, at most max_status_document bytes. Built anew
// first when something that it shows has been marked as changed, so that asking is always right and
// costs nothing while nothing changes. Valid until the next call of any function here.
const std::string& status_document();
inline constexpr size_t max_status_document = 1U << 20;

// Counts the texts that the document has had: it grows exactly when a rebuild gave another text.
// The subscribers have the present one when they were sent it at this number.
uint64_t status_document_generation();

// The document is out of date. Costs a store; the rebuild waits for json_check_xmit or a reader.
void mark_document_changed();

// --- metadata set by a client -------------------------------------------------------------------

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

// --- the socket ---------------------------------------------------------------------------------

// Absolute path of the comm socket, whatever vexa_sock was given as and wherever the process's
// working folder is now; at most 107 bytes. Empty before vexa_standard_to_derived_params.
const std::string& socket_path();

// The lock on socket_path() + ".lock" is held by this process, or was inherited through daemon().
// Only then may the socket be made. Taken by vexa_standard_to_derived_params unless the mode never
// serves; let go of by vexa_free_all.
bool holds_serve_lock();
