// The text of a pending metadata file: settings that are not in the metadata file yet, one record
// per line, each with a checksum by which an incomplete record is recognised. Format:
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

// Appends a record that sets an entry of the item. The texts contain no NUL.
void append_set_record(std::string* out, std::string_view name, std::string_view value);

// Appends a record that says: all records above are part of the file `temporary`, which is about to
// be renamed to the metadata file. While `temporary` still exists, they are not.
void append_stored_record(std::string* out, std::string_view temporary);

struct pending_text {
    item_settings settings;               // the last value of each name
    std::vector<std::string> temporaries; // named by stored records, and still existing
    size_t damaged = 0;                   // lines that are not records and are skipped
};

// An incomplete last line, without a newline, is ignored. `is_there` returns whether a temporary
// file still exists.
pending_text parse_pending(std::string_view text,
                           const std::function<bool(const std::string& temporary)>& is_there);

} // namespace platform
