#include "platform/standalone/report/document.h"

#include <algorithm>
#include <map>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <json11.hpp>

#include "platform/cnb.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/report/document_entries.h"
#include "platform/standalone/report/status.h"
#include "platform/time.h"
#include "wire/utf8.h"

bool json_next_xmit_rebuild = false;
void (*vexa_on_json_build)(std::map<std::string, json11::Json>& document,
                           unsigned long context_id) = nullptr;

namespace platform {

namespace {

using json_object = std::map<std::string, json11::Json>;

constexpr size_t max_item_text = 8192; // bytes of a path or name, before conversion to UTF-8
// The members besides the entries stay far below the rest.
static_assert(max_document_entries <= max_status_document / 2);
constexpr const char* entries_member = "metadata";
constexpr uint64_t min_rebuild_interval_us = 10'000;

json_object item_common;
json_object confinement; // empty until the process has confined itself
std::string document = "{}";
bool changed = true;
unstored_settings (*unstored_source)() = nullptr;
size_t connected_clients = 0;
bool examined_shown = false;
uint64_t generation = 0;
uint64_t generation_reported = 0; // by refresh_document
uint64_t last_rebuild_us = 0;

// --- values -------------------------------------------------------------------------------------

json11::Json text_or_null(const char* text)
{
    if (text == nullptr) {
        return nullptr;
    }
    return wire::to_utf8(std::string_view(text).substr(0, max_item_text));
}

// JSON readers represent whole numbers of up to 53 bits exactly.
json11::Json whole_number(int64_t number)
{
    constexpr int64_t exact = int64_t{1} << 53;
    return static_cast<double>(std::clamp(number, -exact, exact));
}

json11::Json whole_number(uint64_t number)
{
    return whole_number(static_cast<int64_t>(std::min<uint64_t>(number, INT64_MAX)));
}

json11::Json ratio(const int_rational& value)
{
    return json11::Json::array{whole_number(value.numerator), whole_number(value.denominator)};
}

// --- members ------------------------------------------------------------------------------------

json_object item_object()
{
    json_object object = item_common;
    object["aspect ratio"] = ratio(vexa_aspect_ratio);
    object["background music"] = vexa_background_music != 0;
    object["file type"] = text_or_null(vexa_file_type);
    object["time duration"] = whole_number(vexa_time_duration);
    object["time scale"] = ratio(vexa_time_scale);
    object["video streams"] = vexa_video_streams;
    return object;
}

// The list of entries is closed once the picture has been examined.
bool is_examined()
{
    return vexa_metadata != nullptr && vexa_metadata->closed;
}

json_object process_object()
{
    examined_shown = is_examined();
    json_object object = {
        {"clients", whole_number(static_cast<uint64_t>(connected_clients))},
        {"examined", examined_shown},
        {"pid", static_cast<int>(getpid())},
        {"progress",
         json_object{{"percent", progress_percent()}, {"text", std::string(progress_text())}}},
        {"ready", ready_state()},
        {"version", STILLIMAGE_VERSION},
    };
    if (!confinement.empty()) {
        object["confinement"] = confinement;
    }
    return object;
}

json_object buffer_object()
{
    const cnb_domain_view view = cnb_view_domain();
    return {
        {"domain", text_or_null(view.name)},
        {"limit", whole_number(view.limit)},
        {"number", whole_number(static_cast<uint64_t>(view.buffer))},
        {"size", whole_number(view.buffer_size)},
        {"total", whole_number(cnb_total)},
    };
}

void add_unstored(json_object* target)
{
    if (unstored_source == nullptr) {
        return;
    }
    const unstored_settings unstored = unstored_source();
    if (unstored.count == 0) {
        return;
    }
    json11::Json::array names;
    for (const std::string& name : unstored.names) {
        names.emplace_back(wire::to_utf8(name));
    }
    (*target)["metadata not stored"] =
        json_object{{"count", whole_number(static_cast<uint64_t>(unstored.count))},
                    {"names", std::move(names)},
                    {"reason", wire::to_utf8(unstored.reason)}};
}

// The document as text. The entries are joined from their own texts, because they are by far the
// largest part and seldom change.
std::string text_of(json_object members)
{
    std::string entries;
    if (!append_document_entries(&entries)) {
        members["metadata cut"] = true;
    }
    members[entries_member] = nullptr; // its place among the others
    std::string text = "{";
    for (const auto& [name, value] : members) {
        text += text.size() == 1 ? "\"" : ", \"";
        text += name;
        text += "\": ";
        if (name == entries_member) {
            text += entries;
        } else {
            value.dump(text);
        }
    }
    text += '}';
    return text;
}

bool out_of_date()
{
    return changed || json_next_xmit_rebuild || examined_shown != is_examined();
}

bool rebuild_is_due(uint64_t now_us)
{
    return now_us < last_rebuild_us || now_us - last_rebuild_us >= min_rebuild_interval_us;
}

} // namespace

const std::string* document_entry(std::string_view name)
{
    return shown_document_entry(name);
}

void set_document_entry(std::string_view name, std::string_view value)
{
    change_document_entry(name, value);
    changed = true;
}

void reset_document()
{
    clear_document_entries();
    item_common.clear();
    confinement.clear();
    document = "{}";
    changed = true;
    connected_clients = 0;
    examined_shown = false;
    generation = 0;
    generation_reported = 0;
    unstored_source = nullptr;
    last_rebuild_us = 0;
    json_next_xmit_rebuild = false;
    vexa_on_json_build = nullptr;
}

const std::string& status_document()
{
    if (out_of_date()) {
        last_rebuild_us = monotonic_clock_us();
        rebuild_json();
    }
    return document;
}

bool document_must_wait(uint64_t now_us)
{
    return out_of_date() && !rebuild_is_due(now_us);
}

uint64_t document_due_us()
{
    return last_rebuild_us + min_rebuild_interval_us;
}

uint64_t status_document_generation()
{
    return generation;
}

void set_document_clients(size_t count)
{
    connected_clients = count;
    changed = true;
}

void mark_document_changed()
{
    changed = true;
}

// Many changes in a row cost one rebuild in ten milliseconds, not one each.
bool refresh_document(uint64_t now_us)
{
    if (out_of_date() && rebuild_is_due(now_us)) {
        last_rebuild_us = now_us;
        rebuild_json();
    }
    return std::exchange(generation_reported, generation) != generation;
}

void set_document_item(const document_item& item)
{
    item_common = {
        {"GUID", text_or_null(item.guid)},
        {"file", text_or_null(item.file)},
        {"file path", text_or_null(item.file_path)},
        {"metadata folder", text_or_null(item.metadata_folder)},
        {"socket", text_or_null(item.socket)},
    };
    changed = true;
}

void set_document_confinement(const std::vector<shown_measure>& measures, int landlock)
{
    confinement = {{"landlock", landlock}};
    for (const shown_measure& measure : measures) {
        confinement[measure.name] = measure.in_force;
    }
    changed = true;
}

void set_unstored_source(unstored_settings (*source)())
{
    unstored_source = source;
}

} // namespace platform

using namespace platform;

// The entries are copied, because the list is closed when the metadata has been written back.
void meta_to_json(metadata_v4_metadata_context* list)
{
    clear_document_entries();
    const size_t count = metadata_v4_metadata_context_entry_count(list);
    for (size_t i = 0; i < count; ++i) {
        const metadata_v4_entry* entry = metadata_v4_metadata_context_read_entry(list, i);
        if (entry != nullptr) {
            append_document_entry({entry->name, entry->name_length},
                                  {entry->value, entry->value_length}, entry->tag);
        }
    }
    changed = true;
}

void rebuild_json()
{
    json_object members = {
        {"buffer", buffer_object()},
        {"item", item_object()},
        {"process", process_object()},
    };
    add_unstored(&members);
    if (vexa_on_json_build != nullptr) {
        vexa_on_json_build(members, no_context_id);
    }
    json_next_xmit_rebuild = false;
    changed = false;
    std::string text = text_of(std::move(members));
    if (text != document) {
        document = std::move(text);
        ++generation;
    }
}
