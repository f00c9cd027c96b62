// The entries of the item's metadata in the status document, each as JSON text that is made once.
// Only the entries that fit into the document are kept, so their memory is bounded, however large
// the metadata is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

// The entries may use this much of the document, counted before characters are escaped to their
// shortest form. Entries from the first one that does not fit are not shown.
inline constexpr size_t max_document_entries = size_t{1} << 19; // bytes

void clear_document_entries();
void append_document_entry(std::string_view name, std::string_view value, int tag);

// Whether the item (tag -1) has an entry of this name, shown or not.
bool has_document_entry(std::string_view name);

// The value of the item's entry `name`, or null when it has none or the entry is not shown.
const std::string* shown_document_entry(std::string_view name);

// Changes the value of the item's entry, or adds the entry.
void change_document_entry(std::string_view name, std::string_view value);

// Appends the shown entries as a JSON array. False when there are others.
bool append_document_entries(std::string* json);

// Bytes of texts that are kept for the entries.
size_t document_entries_size();

} // namespace platform
