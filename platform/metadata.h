// Item metadata: a list of name/value entries kept in one text file per item.
// File format: docs/metadata.md.
#pragma once

#include <cstddef>

// An open item: its picture and its metadata file. Created by vexa_standard_to_derived_params.
struct metadata_v4_context {
    int file_fd;           // the picture, open for reading; -1 when it is not open
    const char* file_name; // path of the picture, for messages
    const char* metadata_path;
};

// One entry. The texts contain no NUL; both are NUL-terminated in addition to their length.
struct metadata_v4_entry {
    const char* name;
    size_t name_length;
    const char* value;
    size_t value_length;
    int tag; // -1: the item as a whole
};

// An item's entries, in file order.
struct metadata_v4_metadata_context;

// A new descriptor of the picture, at offset 0, open for reading, owned by the caller. `which` is
// 0, the picture. It refers to the same file as `context->file_fd`, even if the path has been
// replaced since. Negative when the picture is not a regular file or no descriptor is available.
int metadata_v4_context_get_file_handle(metadata_v4_context* context, int which);

// Number of slots, including the holes of freed entries. 0 for null and for a closed list.
size_t metadata_v4_metadata_context_entry_count(const metadata_v4_metadata_context* list);

// The entry in slot `index`, owned by the list; null for a hole or an index past the end.
metadata_v4_entry* metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context* list,
                                                           size_t index);

// Removes an entry that read_entry returned, which leaves a hole.
void metadata_v4_metadata_context_free_metadata_entry(metadata_v4_metadata_context* list,
                                                      metadata_v4_entry* entry);

// Appends an entry. The texts are copied; a length of 0 means NUL-terminated. 0, or -1 when the
// list is closed, a text contains a NUL, or a limit of docs/metadata.md is exceeded.
int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context* list,
                                                     const char* name, size_t name_length,
                                                     const char* value, size_t value_length,
                                                     int tag);

// Replaces the item's metadata file by this list, atomically. `flags` is 0 and `reserved` null. 0,
// or non-zero with the old file unchanged. If only the sync of the folder fails, the result is
// non-zero and the new file is in place, complete.
int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context* list,
                                                        metadata_v4_context* context, int flags,
                                                        void* reserved);

// Closes the list: from then on it behaves as an empty one. The platform still owns the object.
void metadata_v4_metadata_close_file(metadata_v4_metadata_context* list);

// Adds a random "GUID" entry when the list has none. Non-zero when one was added.
int auto_generate_metadata_guid(metadata_v4_metadata_context* list);
