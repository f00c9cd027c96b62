// Replacing the metadata file, and with it the pending files whose settings the new one holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/metadata.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"

namespace platform {

inline constexpr std::string_view cannot_write_metadata = "Cannot write metadata file";

// What a write of the metadata file has to do with pending files.
struct pending_work {
    std::vector<pending_file*> taken_in; // all that they hold is in the text that is written
    std::vector<std::string> kept;       // temporary files that have to stay
};

void keep_temporaries(const pending_file& file, pending_work* work);

// Writes the list as the item's metadata file, then removes the pending files that were taken in. At
// any crash either the old file is there and all settings are pending, or the new file and none.
// Only under the lock. 0, or -1 after a message, which *reason gets, too.
int replace_stored(const metadata_store& store, metadata_v4_metadata_context* list,
                   const pending_work& work, std::string* reason);

// Without writing: removes the pending files that were taken in.
void remove_taken_in(const metadata_store& store, const pending_work& work);

// Prints why the metadata file cannot be written, gives *reason_out the reason unless that is null,
// and returns -1.
int refuse_write(const metadata_store& store, std::string_view what, const std::string& reason,
                 std::string* reason_out);

} // namespace platform
