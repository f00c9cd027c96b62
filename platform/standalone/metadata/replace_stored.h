// Replaces the metadata file, and removes the pending files whose settings the new one contains.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/metadata.h"
#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"

namespace platform {

inline constexpr std::string_view cannot_write_metadata = "Cannot write metadata file";

// The pending files that are affected by a write of the metadata file.
struct pending_work {
    std::vector<pending_file*> taken_in; // all of their settings are in the text that is written
    std::vector<std::string> kept;       // temporary files that must not be removed
};

inline constexpr mode_t new_metadata_mode = 0600;

void keep_temporaries(const pending_file& file, pending_work* work);

// Writes the list as the item's metadata file, then removes the merged pending files. After a crash
// at any moment either the old file is there and all settings are pending, or the new file is there
// and none are. The caller holds the lock. 0, or -1 after a message, whose reason is also
// stored in *reason unless that is null.
int replace_stored(const metadata_store& store, metadata_v4_metadata_context* list,
                   const pending_work& work, std::string* reason);

// The last part of that, with a temporary file that contains the text and is synced. -1 with
// *failure; the temporary file is then removed where that loses nothing.
int place_temporary(const metadata_store& store, const std::string& temporary,
                    const pending_work& work, replace_failure* failure);

// Removes the merged pending files without writing.
void remove_taken_in(const metadata_store& store, const pending_work& work);

// Prints why the metadata file cannot be written, copies the reason to *reason_out unless that is
// null, and returns -1.
int refuse_write(const metadata_store& store, std::string_view what, const std::string& reason,
                 std::string* reason_out);
int refuse_step(const metadata_store& store, const replace_failure& failure,
                std::string* reason_out);

} // namespace platform
