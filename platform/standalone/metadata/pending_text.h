// The text of a pending metadata file: settings that are not in the metadata file yet, one record a
// line, each with a checksum so that a record that was not written whole is recognised. Format:
// docs/metadata.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Values of entries of the item, by name.
using item_settings = std::map<std::string, std::string, std::less<>>;

// Appends a record that sets an entry of the item. No text may hold a NUL.
void append_set_record(std::string* out, std::string_view name, std::string_view value);

// Appends a record that says: all records above are part of the file `temporary`, which is about to
// be renamed to the metadata file. While that file is still there, they are not.
void append_stored_record(std::string* out, std::string_view temporary);

struct pending_text {
    item_settings settings;               // the last value of each name
    std::vector<std::string> temporaries; // that stored records name and that are still there
    size_t damaged = 0;                   // lines that are no records; they are passed over
};

// A last line without its newline was not written whole and does not count. `is_there` answers
// whether a temporary file still exists.
pending_text parse_pending(std::string_view text,
                           const std::function<bool(const std::string& temporary)>& is_there);

} // namespace platform
