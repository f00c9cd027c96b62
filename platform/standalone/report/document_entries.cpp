// The shown entries are the first ones of the list. An entry that stops fitting loses its value,
// and is shown again only after it has been set again.
#include "platform/standalone/report/document_entries.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <json11.hpp>

#include "platform/standalone/metadata/metadata_text.h"
#include "wire/utf8.h"

namespace platform {

namespace {

struct document_entry {
    std::string name;
    int tag;
    size_t size = 0;   // counted against max_document_entries
    std::string value; // both only while it is shown
    std::string json;
};

std::vector<document_entry> entries;
size_t shown = 0;      // number of entries
size_t shown_size = 0; // of these

// Size of `text` as a JSON string in bytes, including the quotes.
size_t json_size(std::string_view text)
{
    size_t size = 2;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        // Control characters become \u00XX; a byte of U+2028 or U+2029, or one that is replaced,
        // counts the same.
        const bool may_grow = byte < 0x20 || byte >= 0x80;
        size += may_grow ? 6 : (c == '"' || c == '\\' ? 2 : 1);
    }
    return size;
}

size_t size_of(std::string_view name, std::string_view value)
{
    constexpr size_t member_names = 64; // and what stands between them
    return json_size(name) + json_size(value) + member_names;
}

std::string json_of(std::string_view name, std::string_view value, int tag)
{
    const json11::Json entry = json11::Json::object{
        {"name", wire::to_utf8(name)}, {"tag", tag}, {"value", wire::to_utf8(value)}};
    return entry.dump();
}

void hide_last()
{
    document_entry& last = entries[--shown];
    shown_size -= last.size;
    last.value = std::string();
    last.json = std::string();
}

// Shows the entry with the new value when it fits and those before it are shown.
void set_value(size_t index, std::string_view value)
{
    document_entry& entry = entries[index];
    if (index > shown) {
        return;
    }
    if (index < shown) {
        shown_size -= entry.size;
    }
    entry.size = size_of(entry.name, value);
    entry.value = value;
    entry.json = json_of(entry.name, value, entry.tag);
    shown = std::max(shown, index + 1);
    shown_size += entry.size;
    while (shown_size > max_document_entries) {
        hide_last();
    }
}

size_t find_entry(std::string_view name)
{
    const auto found = std::find_if(entries.begin(), entries.end(), [name](const auto& entry) {
        return entry.tag == item_tag && entry.name == name;
    });
    return static_cast<size_t>(found - entries.begin());
}

} // namespace

void clear_document_entries()
{
    entries = {};
    shown = 0;
    shown_size = 0;
}

void append_document_entry(std::string_view name, std::string_view value, int tag)
{
    entries.push_back({.name = std::string(name), .tag = tag, .value = {}, .json = {}});
    set_value(entries.size() - 1, value);
}

bool has_document_entry(std::string_view name)
{
    return find_entry(name) < entries.size();
}

const std::string* shown_document_entry(std::string_view name)
{
    const size_t index = find_entry(name);
    return index < shown ? &entries[index].value : nullptr;
}

void change_document_entry(std::string_view name, std::string_view value)
{
    const size_t index = find_entry(name);
    if (index < entries.size()) {
        set_value(index, value);
    } else {
        append_document_entry(name, value, item_tag);
    }
}

bool append_document_entries(std::string* json)
{
    *json += '[';
    for (size_t i = 0; i < shown; ++i) {
        *json += i == 0 ? "" : ", ";
        *json += entries[i].json;
    }
    *json += ']';
    return shown == entries.size();
}

size_t document_entries_size()
{
    size_t size = 0;
    for (const document_entry& entry : entries) {
        size += entry.name.size() + entry.value.size() + entry.json.size();
    }
    return size;
}

} // namespace platform
