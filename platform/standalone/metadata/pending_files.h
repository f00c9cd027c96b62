// Pending files contain settings that a process has accepted but not yet written to the metadata
// file. Each process that accepts settings has one of its own beside the metadata file; it alone
// appends to it, so it never waits for a lock. The next write of the metadata file merges the
// pending file; after a crash the next start does. Format and rules: docs/metadata.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_text.h"

namespace platform {

inline constexpr const char* pending_name = "metadata.pending-"; // and a number from 1
inline constexpr size_t max_pending_files = 16;
inline constexpr size_t max_pending_file = size_t{16} << 20; // bytes

// An open pending file. Its owner holds the kernel's lock on it as long as it is open; a process
// that gets the lock therefore knows that the owner is dead, and becomes the owner.
struct pending_file {
    unique_fd fd;                         // none: there is no file
    std::string name;                     // in the metadata folder
    int64_t unmarked_size = 0;            // bytes before its last stored record
    bool damaged = false;                 // to be set aside rather than removed
    std::vector<std::string> temporaries; // named by stored records that are not valid

    explicit operator bool() const { return static_cast<bool>(fd); }
};

// --- the owner's side ---------------------------------------------------------------------------

enum class append_result {
    APPENDED, // survives the process
    FULL,     // the metadata file must be written first
    FAILED,   // nothing was appended; the reason is given
};

// Appends a record with a single write, without a sync. The file is created with mode 0600 if there
// is none. `others` are bytes of other records that the metadata file must have room for.
append_result append_pending(const metadata_store& store, pending_file* own,
                             std::string_view record, std::string* reason, uint64_t others = 0);

// The size of the file in bytes, 0 when there is none.
uint64_t pending_size(const pending_file& own);

// True when the open file has been removed, so that its records are lost.
bool pending_file_is_lost(const pending_file& own);

// --- taking settings into the metadata file; under its lock -------------------------------------

// Records in the file that its settings are part of `temporary`, which is about to be renamed.
// False with errno on failure; the file is then unchanged.
bool mark_stored(const metadata_store& store, pending_file* file, const std::string& temporary);

// Reverts that. False on failure: `temporary` then has to stay in place, because its existence is
// what makes the record invalid.
bool unmark_stored(const metadata_store& store, pending_file* file, const std::string& temporary);

// Closes and removes the file, then the temporary files that had to be kept for it. A file that
// cannot be removed is truncated to zero and stays open.
void remove_pending(const metadata_store& store, pending_file* file);

// --- readers ------------------------------------------------------------------------------------

struct found_pending {
    pending_file file;      // owned, or open for reading only
    bool abandoned = false; // owned: its process is dead
    file_identity state;
    pending_text text;
};

bool has_pending_files(const metadata_store& store);

// All pending files in the order of their creation, except those named in `except`. Files that
// cannot be read are reported and left out.
std::vector<found_pending> find_pending(const metadata_store& store,
                                        const std::vector<std::string>& except = {});

} // namespace platform
