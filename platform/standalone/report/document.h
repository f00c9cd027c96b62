// The status document: one JSON object that tells everything of the item, the process and the
// buffer. Its members: docs/status.md. The calls are meta_to_json, item_to_json_common,
// rebuild_json and json_check_xmit of platform/media_item.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

// The document as JSON text on one line, valid UTF-8, at most max_status_document bytes. Built anew
// first when something that it shows has been marked as changed, so that asking is always right and
// costs nothing while nothing changes. Valid until the next call of any function here.
const std::string& status_document();
inline constexpr size_t max_status_document = 1U << 20;

// Counts the texts that the document has had: it grows exactly when a rebuild gave another text.
// The subscribers have the present one when they were sent it at this number.
uint64_t status_document_generation();

// The document is out of date. Costs a store; the rebuild waits for json_check_xmit or a reader.
void mark_document_changed();

// The value of the item's entry `name` in the document, null when it shows none.
const std::string* document_entry(std::string_view name);

// Shows another value of an entry of the item from now on, or one more entry.
void set_document_entry(std::string_view name, std::string_view value);

// Everything as at program start.
void reset_document();

} // namespace platform
