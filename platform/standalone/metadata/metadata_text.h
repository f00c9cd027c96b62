// Converts the text of a metadata file to entries and back. Format and limits: docs/metadata.md.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

inline constexpr size_t max_metadata_file = size_t{16} << 20; // bytes
inline constexpr size_t max_metadata_entries = 131072;
inline constexpr size_t max_entry_name = 4096;             // bytes, before escaping
inline constexpr size_t max_entry_value = size_t{1} << 20; // bytes, before escaping

inline constexpr int item_tag = -1; // tag of entries about the item as a whole

// The text above the entries of a new file.
inline constexpr std::string_view new_metadata_header =
    "# Metadata of one media item. One entry a line: name = value\n";
inline constexpr const char* too_many_entries = "too many entries";

struct text_entry {
    std::string leading; // comments and empty lines before the entry, each with its newline
    std::string name;
    std::string value;
    int tag = item_tag;
};

struct text_document {
    std::vector<text_entry> entries; // in file order
    std::string trailing;            // comments and empty lines after the last entry
};

struct text_fault {
    size_t line = 0; // from 1
    const char* reason = "";
};

// False when the text is not a metadata file; *fault then says where and why, and *document is
// unspecified and must not be used.
bool parse_metadata(std::string_view text, text_document* document, text_fault* fault);

// Whether an entry may have these texts: within the limits, and without a NUL.
bool may_be_entry(std::string_view name, std::string_view value);

// Parses one line, given without its newline. Null, or what is wrong with it. A comment or an empty
// line is appended to *comments, with a newline, and *is_entry becomes false. `first`: of the file.
const char* parse_metadata_line(std::string_view line, bool first, text_entry* entry,
                                std::string* comments, bool* is_entry);

// Appends the line of one entry, including the newline. The texts contain no NUL.
void append_entry_line(std::string* out, std::string_view name, std::string_view value, int tag);

} // namespace platform
