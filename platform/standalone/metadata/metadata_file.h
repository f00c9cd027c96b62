// The stored metadata of an item: the files in its metadata folder, and who may write them when.
// What each file is for and what happens to a damaged one: docs/metadata.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/metadata.h"
#include "platform/standalone/base/file_operations.h"

namespace platform {

inline constexpr const char* metadata_file_name = "metadata";
inline constexpr const char* metadata_lock_name = "metadata.lock";
inline constexpr const char* set_aside_name = "metadata.damaged-"; // and a number from 1
inline constexpr int max_set_aside = 100;

// Where an item's metadata lies, and how its files are reached.
struct metadata_store {
    int folder = -1;  // the open metadata folder, borrowed
    std::string path; // of the metadata file, for messages
    uint64_t lock_limit_us = 2'000'000;
    const std::atomic<int>* stop = nullptr; // not 0: waiting for the lock ends
    const file_operations* operations = &system_file_operations;
};

// The stored entries; a new list when there is no file. A file that is damaged, too large or
// unreadable is reported, set aside under a free name, and a new list is given; when it cannot be
// set aside, that list will not be written. Null, after a message, when the file may be whole but
// cannot be read now (no descriptors, no memory). To be freed with free_metadata_list.
metadata_v4_metadata_context* load_metadata(const metadata_store& store);

// Replaces the stored file by the list, under the lock. Refused when another process holds the lock
// for longer than the limit, or has changed the file since the list was read. 0, or -1 after a
// message and with the old file untouched.
int store_metadata(const metadata_store& store, metadata_v4_metadata_context* list);

struct entry_update {
    std::string_view name;
    std::string_view value;
};

// Sets entries of the item in the stored file, everything else in it as another process may have
// left it: read, changed and replaced under the lock. Does not write when nothing changes. 0, or -1
// after a message and with the old file untouched; a damaged file stays for the next start to set
// aside.
int update_stored_metadata(const metadata_store& store, std::span<const entry_update> updates);

} // namespace platform
