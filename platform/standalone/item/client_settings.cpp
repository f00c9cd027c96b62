#include "platform/standalone/item/client_settings.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "platform/comm_protocol.h"
#include "platform/media_item.h"
#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/document.h"
#include "platform/standalone/item/item_state.h"
#include "platform/standalone/item/values.h"
#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"
#include "platform/time.h"

namespace item {

namespace {

namespace names = platform::metadata_name;

constexpr uint64_t write_delay_us = 1'000'000;
constexpr uint64_t longest_delay_us = 600'000'000;
// Serving goes on while the lock of the metadata file is waited for, so the wait is short.
constexpr uint64_t lock_wait_us = 20'000;
constexpr uint64_t last_lock_wait_us = 200'000; // at the end, whatever ended the worker
constexpr size_t most_new_names = 256;          // that clients of one run may add

std::map<std::string, std::string, std::less<>> waiting; // name to value, not yet in the file
uint64_t due_us = 0; // when to write; meaningful while something waits
uint64_t delay_us = write_delay_us;
size_t new_names = 0;

// What the worker finds out itself; a client cannot know better.
constexpr std::array found_out = {
    names::file_type,    names::guid,          names::image_size, names::picture_size,
    names::picture_time, names::time_duration, names::time_scale, names::video_streams,
};

bool may_be_set(std::string_view name, const std::string& value)
{
    if (name.empty() || name.size() > comm_protocol::max_metadata_name ||
        value.size() > comm_protocol::max_metadata_value ||
        name.find('\0') != std::string_view::npos || value.find('\0') != std::string::npos) {
        return false;
    }
    if (std::find(found_out.begin(), found_out.end(), name) != found_out.end()) {
        return false;
    }
    int_rational ratio = {};
    bool on = false;
    return (name != names::aspect_ratio || parse_aspect_ratio(value.c_str(), &ratio)) &&
           (name != names::background_music || parse_on_off(value.c_str(), &on));
}

// False when clients have added as many names as they may.
bool take_into_document(std::string_view name, const std::string& value)
{
    if (document_entry(name) == nullptr) {
        if (new_names >= most_new_names) {
            return false;
        }
        ++new_names;
    }
    set_document_entry(name, value);
    return true;
}

// A list that is still open is yet to be written back, and shown in the document once more.
void take_into_open_list(std::string_view name, const std::string& value)
{
    if (vexa_metadata != nullptr) {
        platform::set_item_entry(vexa_metadata, name, value);
    }
}

void let_wait(std::string_view name, const std::string& value)
{
    if (!vexa_metadata_may_update) {
        return;
    }
    if (waiting.empty()) {
        due_us = platform::saturating_add(monotonic_clock_us(), delay_us);
    }
    waiting.insert_or_assign(std::string(name), value);
}

// 0 when nothing waits any more.
int write_waiting(uint64_t lock_limit_us)
{
    if (waiting.empty() || opened_item() == nullptr) {
        return 0;
    }
    std::vector<platform::entry_update> updates;
    updates.reserve(waiting.size());
    for (const auto& [name, value] : waiting) {
        updates.push_back({name, value});
    }
    platform::metadata_store store = opened_item()->store;
    store.lock_limit_us = lock_limit_us;
    store.stop = nullptr;
    if (platform::update_stored_metadata(store, updates) != 0) {
        return -1;
    }
    waiting.clear();
    return 0;
}

} // namespace

void store_waiting_settings(uint64_t now_us)
{
    if (waiting.empty() || now_us < due_us) {
        return;
    }
    if (write_waiting(lock_wait_us) == 0) {
        delay_us = write_delay_us;
        return;
    }
    delay_us = std::min(2 * delay_us, longest_delay_us);
    due_us = platform::saturating_add(now_us, delay_us);
}

void store_all_settings()
{
    if (write_waiting(last_lock_wait_us) != 0) {
        fputs("What clients have set is lost\n", stderr);
    }
    waiting.clear();
}

void reset_client_settings()
{
    waiting.clear();
    delay_us = write_delay_us;
    new_names = 0;
}

} // namespace item

int store_client_setting(std::string_view name, std::string_view value)
{
    const std::string text(value);
    if (!item::may_be_set(name, text)) {
        return -1;
    }
    const std::string* shown = item::document_entry(name);
    if (shown != nullptr && *shown == text) {
        return 0;
    }
    if (!item::take_into_document(name, text)) {
        return -1;
    }
    item::take_into_open_list(name, text);
    item::let_wait(name, text);
    return 0;
}
