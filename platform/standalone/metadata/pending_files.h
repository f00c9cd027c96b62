// Pending files: what a process was asked to store and has not put into the metadata file yet. Each
// process that takes settings has one of its own beside the metadata file, which it alone appends
// to, so that no lock has to be waited for. The next write of the metadata file takes it in; after
// a death the next start does. Format and rules: docs/metadata.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/standalone/base/unique_fd.h"
#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_text.h"

namespace platform {

inline constexpr const char* pending_name = "metadata.pending-"; // and a number from 1
inline constexpr size_t max_pending_files = 16;
inline constexpr size_t max_pending_file = size_t{16} << 20; // bytes

// An open pending file. Its owner holds the kernel's lock on it as long as it is open, so whoever
// gets that lock knows the owner to be dead, and owns it from then on.
struct pending_file {
    unique_fd fd;                         // none: there is no file
    std::string name;                     // in the metadata folder
    int64_t unmarked_size = 0;            // bytes before its last stored record
    bool damaged = false;                 // to be set aside rather than removed
    std::vector<std::string> temporaries; // of stored records that count for nothing

    explicit operator bool() const { return static_cast<bool>(fd); }
};

// --- the owner's side ---------------------------------------------------------------------------

enum class append_result {
    APPENDED, // survives the process
    FULL,     // the next write of the metadata file has to come first
    FAILED,   // for the reason given; nothing was appended
};

// Appends a record by one write, not synced. The file is made, with mode 0600, when there is none.
append_result append_pending(const metadata_store& store, pending_file* own,
                             std::string_view record, std::string* reason);

// True when somebody has removed the open file: what was appended to it is lost.
bool pending_file_is_lost(const pending_file& own);

// --- taking settings into the metadata file; under its lock ---------------------------------------

// Says in the file that all it holds is part of `temporary`, which is about to be renamed. False
// with errno on failure; the file is then as before.
bool mark_stored(const metadata_store& store, pending_file* file, const std::string& temporary);

// Takes that back. False when it cannot be: then `temporary` has to stay where it is, since it is
// what makes the record count for nothing.
bool unmark_stored(const metadata_store& store, pending_file* file, const std::string& temporary);

// Removes the file, which is then closed, and after it the temporary files that had to stay for
// its sake. One that cannot be removed is emptied and stays open.
void remove_pending(const metadata_store& store, pending_file* file);

// --- readers ------------------------------------------------------------------------------------

struct found_pending {
    pending_file file;      // owned, or only read
    bool abandoned = false; // owned: its process is dead
    file_identity state;
    pending_text text;
};

bool has_pending_files(const metadata_store& store);

// All of them in the order in which they were made, but for the one named `except`. What cannot be
// read is reported and left out.
std::vector<found_pending> find_pending(const metadata_store& store, std::string_view except = {});

} // namespace platform
