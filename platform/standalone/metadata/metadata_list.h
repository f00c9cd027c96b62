// An item's entries in memory. Implements the list calls of platform/metadata.h.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/metadata.h"
#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "platform/standalone/metadata/pending_text.h"

namespace platform {

// One slot: the entry as callers see it, and the texts that it points to. Slots never move in
// memory.
struct metadata_slot : metadata_v4_entry {
    text_entry text;
    size_t line_size = 0; // bytes of its line in the file
    bool hole = false;    // freed; only the comments before it remain
};

// The state of a pending file when it was read.
struct replayed_file {
    std::string name;
    file_identity state;
};

} // namespace platform

struct metadata_v4_metadata_context {
    std::string header; // text above all entries
    std::deque<platform::metadata_slot> slots;
    std::string trailing;           // comments after the last entry
    size_t entries = 0;             // slots that are not holes
    size_t text_size = 0;           // bytes of the whole text
    bool closed = false;            // behaves as an empty list
    bool write_refused = false;     // the stored file must not be replaced by this list
    platform::file_identity stored; // the file that the list was read from or last written to
    std::vector<platform::replayed_file> replayed; // pending files whose settings are in the list
    bool unwritten_settings = false;               // some of them are from dead processes
};

namespace platform {

// An empty list with the header of a new file. The caller frees it with free_metadata_list.
metadata_v4_metadata_context* new_metadata_list();
metadata_v4_metadata_context* new_metadata_list(text_document&& document);
void free_metadata_list(metadata_v4_metadata_context* list); // null is fine

struct metadata_list_deleter {
    void operator()(metadata_v4_metadata_context* list) const { free_metadata_list(list); }
};

using list_owner = std::unique_ptr<metadata_v4_metadata_context, metadata_list_deleter>;

// The text of the list as in its file.
std::string metadata_list_text(const metadata_v4_metadata_context& list);

// The first entry of the item (tag -1) with this name, or null.
const metadata_v4_entry* find_item_entry(const metadata_v4_metadata_context* list,
                                         std::string_view name);

// Sets the item's entry of this name: changes its value in place, or appends it when there is none.
// Further entries of the name are freed. 1 when the list changed, 0 when the value was already set,
// -1 when the list is closed or rejects the texts (as add_name_value_pair does); the list is then
// unchanged.
int set_item_entry(metadata_v4_metadata_context* list, std::string_view name,
                   std::string_view value);

// The same for many entries at once, in one pass over the list.
struct settings_result {
    bool changed = false;
    size_t refused = 0; // entries that the list rejects; the others are set nevertheless
};
settings_result set_item_entries(metadata_v4_metadata_context* list, const item_settings& settings);

// Frees the item's entries of this name, if there are any.
void free_item_entries(metadata_v4_metadata_context* list, std::string_view name);

} // namespace platform
