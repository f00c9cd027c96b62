// The stored metadata of an item: the files in its metadata folder, and who may write them when.
// What each file is for and what happens to a damaged one: docs/metadata.md.
#pragma once

#include <string>

#include "platform/metadata.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"
#include "platform/standalone/metadata/set_aside.h"

namespace platform {

// The stored entries, with what pending files have for them; a new list when there is no file. A
// file that is damaged, too large or unreadable is reported, set aside under a free name, and a new
// list is given; when it cannot be set aside, that list will not be written. Null, after a message,
// when the file may be whole but cannot be read now (no descriptors, no memory). To be freed with
// free_metadata_list.
metadata_v4_metadata_context* load_metadata(const metadata_store& store);

// True when the list holds what a dead process was asked to store and what is not in the metadata
// file yet: storing the list puts it there.
bool has_unwritten_settings(const metadata_v4_metadata_context* list);

// Replaces the stored file by the list, under the lock. Refused when another process holds the lock
// for longer than the limit, or has changed the file since the list was read. 0, or -1 after a
// message and with the old file untouched.
int store_metadata(const metadata_store& store, metadata_v4_metadata_context* list);

// Sets entries of the item in the stored file, everything else in it as another process may have
// left it: read, changed and replaced under the lock. Does not write when nothing changes. What
// dead processes left in pending files is taken in first. `own`, when given, is this process's
// pending file, which holds nothing but these settings; it is removed once they are in the metadata
// file. 0, or -1 after a message, which *reason gets, too, with the old file untouched; a damaged
// file stays for the next start to set aside.
int update_stored_metadata(const metadata_store& store, const item_settings& settings,
                           pending_file* own = nullptr, std::string* reason = nullptr);

// Removes new metadata files that dead writers left, as each write does. Only under the lock.
void remove_left_temporaries(const metadata_store& store);

} // namespace platform
