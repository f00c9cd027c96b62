// Sets entries of the item in the text of a metadata file, line by line, so that a large file needs
// neither much memory nor much time at once.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

#include "platform/standalone/metadata/pending_text.h"

namespace platform {

class text_merge {
public:
    // `settings` must outlive the object.
    explicit text_merge(const item_settings& settings) : settings_(&settings) {}

    // Appends to *out what becomes of the next line of the old text, given without its newline.
    // Null, or what is wrong with the line.
    const char* take_line(std::string_view line, std::string* out);

    // Appends what follows the last line: the entries that the old text does not have. `is_new`:
    // there is no old text. Null, or what is wrong with the new text.
    const char* take_end(bool is_new, std::string* out);

    size_t lines() const { return lines_; }   // taken so far
    bool changed() const { return changed_; } // the new text has other entries than the old one

private:
    const item_settings* settings_;
    std::set<std::string_view> seen_; // names of settings that the old text has
    std::string comments_;            // above the next entry
    size_t lines_ = 0;
    size_t entries_ = 0;
    bool changed_ = false;
};

} // namespace platform
