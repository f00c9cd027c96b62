// The status document: one JSON object that tells everything of the item, the process and the
// buffer. Its members: docs/status.md. The calls are meta_to_json, item_to_json_common,
// rebuild_json and json_check_xmit of platform/media_item.h; readers use item_state.h.
#pragma once

#include <string_view>

namespace item {

// The value of the item's entry `name` in the document, null when it shows none.
const std::string* document_entry(std::string_view name);

// Shows another value of an entry of the item from now on, or one more entry.
void set_document_entry(std::string_view name, std::string_view value);

// Everything as at program start.
void reset_document();

} // namespace item
