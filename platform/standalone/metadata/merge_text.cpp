#include "platform/standalone/metadata/merge_text.h"

#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

const char* text_merge::take_line(std::string_view line, std::string* out)
{
    text_entry entry;
    bool is_entry = false;
    const char* reason = parse_metadata_line(line, ++lines_ == 1, &entry, &comments_, &is_entry);
    if (reason != nullptr || !is_entry) {
        return reason;
    }
    if (++entries_ > max_metadata_entries) {
        return too_many_entries;
    }
    *out += comments_;
    comments_.clear();
    const auto setting = entry.tag == item_tag ? settings_->find(entry.name) : settings_->end();
    if (setting == settings_->end()) {
        append_entry_line(out, entry.name, entry.value, entry.tag);
        return nullptr;
    }
    const bool first = seen_.insert(setting->first).second;
    changed_ = changed_ || !first || entry.value != setting->second;
    if (first) {
        append_entry_line(out, setting->first, setting->second, item_tag);
    }
    return nullptr;
}

const char* text_merge::take_end(bool is_new, std::string* out)
{
    // A file of comments alone: entries go below them.
    if (entries_ == 0) {
        *out += is_new ? new_metadata_header : std::string_view(comments_);
        comments_.clear();
    }
    for (const auto& [name, value] : *settings_) {
        if (!seen_.contains(name)) {
            append_entry_line(out, name, value, item_tag);
            changed_ = true;
            ++entries_;
        }
    }
    *out += comments_;
    return entries_ > max_metadata_entries ? too_many_entries : nullptr;
}

} // namespace platform
