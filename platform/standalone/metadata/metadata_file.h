// The stored metadata of an item: the files in its metadata folder, and who may write them when.
// The purpose of each file, and what happens to a damaged one: docs/metadata.md.
#pragma once

#include <string>

#include "platform/metadata.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"
#include "platform/standalone/metadata/set_aside.h"

namespace platform {

// The stored entries together with the settings in pending files; a new list when there is no file.
// A file that is damaged, too large or unreadable is reported and set aside under a free name, and
// the list is new; if it cannot be set aside, that list will not be written. Null, after a message,
// when the file may be intact but cannot be read now (no descriptors, no memory). The caller frees
// the list with free_metadata_list.
metadata_v4_metadata_context* load_metadata(const metadata_store& store);

// True when the list contains settings that a dead process had accepted and that are not in the
// metadata file yet. Storing the list writes them.
bool has_unwritten_settings(const metadata_v4_metadata_context* list);

// Replaces the stored file by the list, under the lock. Refused when another process holds the lock
// for longer than the limit, or has changed the file since the list was read. 0, or -1 after a
// message, with the old file unchanged.
int store_metadata(const metadata_store& store, metadata_v4_metadata_context* list);

// Removes temporary metadata files that dead writers left, as each write does. The caller holds the
// lock.
void remove_left_temporaries(const metadata_store& store);

} // namespace platform
