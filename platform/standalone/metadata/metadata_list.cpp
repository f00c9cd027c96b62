#include "platform/standalone/metadata/metadata_list.h"

#include <set>
#include <utility>

using platform::metadata_slot;
using platform::text_entry;

namespace {

// Holes are counted: a list that is filled and emptied for ever reaches a limit, too.
constexpr size_t max_slots = 4 * platform::max_metadata_entries;

// Whether a line of `size` bytes fits into a file of `others` bytes. Escapes can make a file larger
// than it was when it was read, so `others` alone may exceed the limit.
bool fits(size_t others, size_t size)
{
    return others <= platform::max_metadata_file && size <= platform::max_metadata_file - others;
}

size_t line_size(const text_entry& text)
{
    std::string line;
    platform::append_entry_line(&line, text.name, text.value, text.tag);
    return line.size();
}

// Points the entry that callers see to the texts of its slot.
void publish(metadata_slot* slot)
{
    slot->name = slot->text.name.c_str();
    slot->name_length = slot->text.name.size();
    slot->value = slot->text.value.c_str();
    slot->value_length = slot->text.value.size();
    slot->tag = slot->text.tag;
}

void append_slot(metadata_v4_metadata_context* list, text_entry&& text, size_t size)
{
    metadata_slot& slot = list->slots.emplace_back();
    list->text_size += text.leading.size() + size;
    slot.text = std::move(text);
    slot.line_size = size;
    publish(&slot);
    ++list->entries;
}

int append_entry(metadata_v4_metadata_context* list, std::string_view name, std::string_view value,
                 int tag)
{
    if (!platform::may_be_entry(name, value) || list->entries >= platform::max_metadata_entries ||
        list->slots.size() >= max_slots) {
        return -1;
    }
    text_entry text = {
        .leading = {}, .name = std::string(name), .value = std::string(value), .tag = tag};
    const size_t size = line_size(text);
    if (!fits(list->text_size, size)) {
        return -1;
    }
    append_slot(list, std::move(text), size);
    return 0;
}

// Sets the value of a slot. -1 when the file would become too large.
int change_value(metadata_v4_metadata_context* list, metadata_slot* slot, std::string_view value)
{
    text_entry changed = {
        .leading = {}, .name = slot->text.name, .value = std::string(value), .tag = slot->text.tag};
    const size_t size = line_size(changed);
    const size_t others = list->text_size - slot->line_size;
    if (size > slot->line_size && !fits(others, size)) {
        return -1;
    }
    list->text_size = others + size;
    slot->text.value = std::move(changed.value);
    slot->line_size = size;
    publish(slot);
    return 0;
}

void free_slot(metadata_v4_metadata_context* list, metadata_slot* slot)
{
    if (slot->hole) {
        return;
    }
    slot->hole = true;
    --list->entries;
    list->text_size -= slot->line_size;
    slot->text.name = std::string();
    slot->text.value = std::string();
    publish(slot);
}

bool is_item_entry(const metadata_slot& slot)
{
    return !slot.hole && slot.text.tag == platform::item_tag;
}

bool is_item_entry(const metadata_slot& slot, std::string_view name)
{
    return is_item_entry(slot) && slot.text.name == name;
}

std::string_view text_of(const char* text, size_t length)
{
    return length == 0 ? std::string_view(text) : std::string_view(text, length);
}

} // namespace

size_t metadata_v4_metadata_context_entry_count(const metadata_v4_metadata_context* list)
{
    return list == nullptr || list->closed ? 0 : list->slots.size();
}

metadata_v4_entry* metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context* list,
                                                           size_t index)
{
    if (index >= metadata_v4_metadata_context_entry_count(list) || list->slots[index].hole) {
        return nullptr;
    }
    return &list->slots[index];
}

void metadata_v4_metadata_context_free_metadata_entry(metadata_v4_metadata_context* list,
                                                      metadata_v4_entry* entry)
{
    // A closed list has freed its entries, so the pointer must not be dereferenced.
    if (list != nullptr && !list->closed && entry != nullptr) {
        free_slot(list, static_cast<metadata_slot*>(entry));
    }
}

int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context* list,
                                                     const char* name, size_t name_length,
                                                     const char* value, size_t value_length,
                                                     int tag)
{
    if (list == nullptr || list->closed || name == nullptr || value == nullptr) {
        return -1;
    }
    return append_entry(list, text_of(name, name_length), text_of(value, value_length), tag);
}

void metadata_v4_metadata_close_file(metadata_v4_metadata_context* list)
{
    if (list != nullptr) {
        *list = metadata_v4_metadata_context();
        list->closed = true;
    }
}

namespace platform {

metadata_v4_metadata_context* new_metadata_list()
{
    auto* list = new metadata_v4_metadata_context();
    list->header = new_metadata_header;
    list->text_size = list->header.size();
    return list;
}

metadata_v4_metadata_context* new_metadata_list(text_document&& document)
{
    auto* list = new metadata_v4_metadata_context();
    for (text_entry& text : document.entries) {
        const size_t size = line_size(text);
        append_slot(list, std::move(text), size);
    }
    // A file of comments alone: entries that are added later go below them.
    std::string& comments = list->slots.empty() ? list->header : list->trailing;
    comments = std::move(document.trailing);
    list->text_size += comments.size();
    return list;
}

void free_metadata_list(metadata_v4_metadata_context* list)
{
    delete list;
}

std::string metadata_list_text(const metadata_v4_metadata_context& list)
{
    std::string text = list.header;
    for (const metadata_slot& slot : list.slots) {
        text += slot.text.leading;
        if (!slot.hole) {
            append_entry_line(&text, slot.text.name, slot.text.value, slot.text.tag);
        }
    }
    text += list.trailing;
    return text;
}

const metadata_v4_entry* find_item_entry(const metadata_v4_metadata_context* list,
                                         std::string_view name)
{
    if (list == nullptr || list->closed) {
        return nullptr;
    }
    for (const metadata_slot& slot : list->slots) {
        if (is_item_entry(slot, name)) {
            return &slot;
        }
    }
    return nullptr;
}

int set_item_entry(metadata_v4_metadata_context* list, std::string_view name,
                   std::string_view value)
{
    if (list == nullptr || list->closed || !platform::may_be_entry(name, value)) {
        return -1;
    }
    metadata_slot* first = nullptr;
    int changed = 0;
    for (metadata_slot& slot : list->slots) {
        if (!is_item_entry(slot, name)) {
            continue;
        }
        if (first != nullptr) {
            free_slot(list, &slot);
            changed = 1;
            continue;
        }
        first = &slot;
        if (slot.text.value != value) {
            if (change_value(list, &slot, value) != 0) {
                return -1;
            }
            changed = 1;
        }
    }
    if (first == nullptr) {
        return append_entry(list, name, value, item_tag) == 0 ? 1 : -1;
    }
    return changed;
}

settings_result set_item_entries(metadata_v4_metadata_context* list, const item_settings& settings)
{
    settings_result result;
    size_t changes = 0;
    if (list == nullptr || list->closed) {
        result.refused = settings.size();
        return result;
    }
    std::set<std::string_view> seen;
    for (metadata_slot& slot : list->slots) {
        const auto setting = is_item_entry(slot) ? settings.find(slot.text.name) : settings.end();
        if (setting == settings.end()) {
            continue;
        }
        if (!seen.insert(setting->first).second) {
            free_slot(list, &slot);
            ++changes;
        } else if (slot.text.value != setting->second) {
            const bool fits = may_be_entry(setting->first, setting->second) &&
                              change_value(list, &slot, setting->second) == 0;
            ++(fits ? changes : result.refused);
        }
    }
    for (const auto& [name, value] : settings) {
        if (!seen.contains(name)) {
            ++(append_entry(list, name, value, item_tag) == 0 ? changes : result.refused);
        }
    }
    result.changed = changes > 0;
    return result;
}

void free_item_entries(metadata_v4_metadata_context* list, std::string_view name)
{
    if (list == nullptr || list->closed) {
        return;
    }
    for (metadata_slot& slot : list->slots) {
        if (is_item_entry(slot, name)) {
            free_slot(list, &slot);
        }
    }
}

} // namespace platform
