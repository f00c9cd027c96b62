#include "platform/standalone/item/client_settings.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/freed_memory.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/values.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "platform/standalone/metadata/pending_files.h"
#include "platform/standalone/metadata/stored_update.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/document_entries.h"
#include "platform/time.h"
#include "wire/protocol.h"

namespace platform {

namespace {

namespace names = metadata_name;

constexpr uint64_t write_delay_us = 1'000'000;
constexpr uint64_t max_delay_us = 600'000'000;
constexpr uint64_t lock_wait_us = 2'000'000;
constexpr uint64_t last_lock_wait_us = 200'000; // at the end of the worker
constexpr size_t max_new_names = 256;           // limit of names that clients may add in one run

size_t new_names = 0;

// Determined by the worker itself; clients may not change it.
constexpr std::array found_out = {
    names::file_type,    names::guid,          names::image_size, names::picture_size,
    names::picture_time, names::time_duration, names::time_scale, names::video_streams,
};

bool may_be_set(std::string_view name, const std::string& value)
{
    if (name.empty() || name.size() > comm_protocol::max_set_metadata_name ||
        value.size() > comm_protocol::max_set_metadata_value ||
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

// False when clients have added the maximum number of names.
bool take_into_document(std::string_view name, const std::string& value)
{
    if (!has_document_entry(name)) {
        if (new_names >= max_new_names) {
            return false;
        }
        ++new_names;
    }
    set_document_entry(name, value);
    return true;
}

// An open list will still be written back and shown in the document again.
void take_into_open_list(std::string_view name, const std::string& value)
{
    if (vexa_metadata != nullptr) {
        set_item_entry(vexa_metadata, name, value);
    }
}

// --- storing ------------------------------------------------------------------------------------

// Where a setting is stored that is not in the metadata file yet.
enum class place {
    PENDING_FILE, // survives this process
    NEXT_WRITE,   // the pending file is full: only in memory until the next write, which decides
    NOWHERE,      // only in memory; it could not be stored
};

struct waiting_setting {
    std::string value;
    place where = place::NOWHERE;
    bool being_written = false; // this value is in the new text of the file
};

std::map<std::string, waiting_setting, std::less<>> waiting; // by name, not yet in the file
size_t waiting_bytes = 0;                                    // of their names and values
pending_file own_pending;                                    // to which settings are appended
std::vector<pending_file> closed_pending;                    // the part of it that a write merges
std::unique_ptr<stored_update> update;                       // the write that is going on
std::string last_failure; // why something could not be stored; empty: the last write succeeded
uint64_t due_us = 0;      // when to write; meaningful while something waits
uint64_t delay_us = write_delay_us;

void forget_waiting()
{
    waiting.clear();
    waiting_bytes = 0;
}

uint64_t closed_bytes()
{
    uint64_t bytes = 0;
    for (const pending_file& file : closed_pending) {
        bytes += pending_size(file);
    }
    return bytes;
}

bool may_store()
{
    return vexa_metadata_may_update && opened_item() != nullptr;
}

// An open list is still to be written back, which is refused when the file has changed meanwhile.
bool list_is_open()
{
    return vexa_metadata != nullptr && !vexa_metadata->closed;
}

void note_failure(const std::string& reason)
{
    if (last_failure != reason) {
        last_failure = reason;
        error_line("Cannot store metadata of a client", opened_item()->store.path, reason);
    }
}

// Appends a setting to the pending file. False when there is no point in trying others.
bool save(const std::string& name, waiting_setting* setting)
{
    std::string record;
    append_set_record(&record, name, setting->value);
    std::string reason;
    switch (append_pending(opened_item()->store, &own_pending, record, &reason, closed_bytes())) {
    case append_result::APPENDED:
        setting->where = place::PENDING_FILE;
        return true;
    case append_result::FULL:
        // After a failed write the next one is far away and as likely to fail.
        setting->where = last_failure.empty() ? place::NEXT_WRITE : place::NOWHERE;
        return false;
    case append_result::FAILED:
        break;
    }
    setting->where = place::NOWHERE;
    note_failure(reason);
    return false;
}

// Settings that could not be saved before may be saved now.
void save_others()
{
    for (auto& [name, setting] : waiting) {
        if (setting.where != place::PENDING_FILE && !save(name, &setting)) {
            return;
        }
    }
}

void look_after_lost_file()
{
    const bool lost = pending_file_is_lost(own_pending);
    const bool closed_lost =
        update == nullptr &&
        std::any_of(closed_pending.begin(), closed_pending.end(),
                    [](const auto& file) { return pending_file_is_lost(file); });
    if (lost) {
        own_pending = pending_file();
    }
    if (closed_lost) {
        closed_pending.clear();
    }
    for (auto& [name, setting] : waiting) {
        if ((lost || closed_lost) && !setting.being_written) {
            setting.where = place::NOWHERE;
        }
    }
}

setting_state state_of(const waiting_setting& setting)
{
    switch (setting.where) {
    case place::PENDING_FILE:
        return setting_state::STORED;
    case place::NEXT_WRITE:
        return setting_state::WAITS;
    case place::NOWHERE:
        break;
    }
    return setting_state::NOT_STORED;
}

// True when nothing remains to be done for the setting. A value that is shown need not be in the
// metadata file, because a write may have failed or the file may have been changed.
bool is_stored(std::string_view name, const std::string& value)
{
    const auto found = waiting.find(name);
    if (found != waiting.end()) {
        look_after_lost_file();
        return found->second.value == value && state_of(found->second) == setting_state::STORED;
    }
    const std::string* shown = document_entry(name);
    return !vexa_metadata_may_update && shown != nullptr && *shown == value;
}

// Limits the waiting settings to what a metadata file can hold.
bool may_wait(std::string_view name, const std::string& value)
{
    const auto former = waiting.find(name);
    const size_t freed = former != waiting.end() ? name.size() + former->second.value.size() : 0;
    return waiting_bytes - freed + name.size() + value.size() <= max_metadata_file;
}

setting_state keep(std::string_view name, const std::string& value)
{
    if (waiting.empty()) {
        due_us = saturating_add(monotonic_clock_us(), delay_us);
    }
    const auto [kept, is_new] = waiting.try_emplace(std::string(name));
    waiting_bytes += is_new ? name.size() : 0;
    waiting_bytes += value.size() - kept->second.value.size();
    kept->second = {value};
    if (may_store()) {
        look_after_lost_file();
        if (save(kept->first, &kept->second)) {
            save_others();
        }
    }
    return state_of(kept->second);
}

// --- writing the item's file ---------------------------------------------------------------------

// All waiting settings, for a write. What is set from now on goes into another pending file.
item_settings take_waiting()
{
    item_settings settings;
    for (auto& [name, setting] : waiting) {
        settings.emplace(name, setting.value);
        setting.being_written = true;
    }
    if (own_pending) {
        closed_pending.push_back(std::move(own_pending));
        own_pending = pending_file();
    }
    return settings;
}

void note_success(uint64_t now_us)
{
    std::erase_if(waiting, [](const auto& entry) { return entry.second.being_written; });
    waiting_bytes = 0;
    for (const auto& [name, setting] : waiting) {
        waiting_bytes += name.size() + setting.value.size();
    }
    std::erase_if(closed_pending, [](const pending_file& file) { return !file; });
    last_failure.clear();
    delay_us = write_delay_us;
    due_us = saturating_add(now_us, delay_us);
    save_others(); // there is room again
    mark_document_changed();
    note_freed_memory();
}

// The values stay pending where they are. With nothing set meanwhile there is still one file.
void note_failed_write(const std::string& reason, uint64_t now_us)
{
    last_failure = reason;
    if (!own_pending && !closed_pending.empty()) {
        own_pending = std::move(closed_pending.back());
        closed_pending.pop_back();
    }
    for (auto& [name, setting] : waiting) {
        setting.being_written = false;
    }
    look_after_lost_file();
    save_others();
    for (auto& [name, setting] : waiting) {
        if (setting.where == place::NEXT_WRITE) {
            setting.where = place::NOWHERE;
        }
    }
    delay_us = std::min(2 * delay_us, max_delay_us);
    due_us = saturating_add(now_us, delay_us);
    mark_document_changed();
}

void begin_update(uint64_t lock_limit_us, uint64_t now_us)
{
    metadata_store store = opened_item()->store;
    store.lock_limit_us = lock_limit_us;
    store.stop = nullptr;
    update = std::make_unique<stored_update>(store, take_waiting(), &closed_pending, now_us);
}

update_progress continue_update(uint64_t now_us)
{
    const update_progress progress = update->step(now_us);
    if (progress == update_progress::DONE || progress == update_progress::FAILED) {
        const std::string reason = update->reason();
        update.reset();
        progress == update_progress::DONE ? note_success(now_us)
                                          : note_failed_write(reason, now_us);
    }
    return progress;
}

// Finishes the write that is going on. True when nothing waits any longer.
bool finish_update()
{
    constexpr timespec pause = {0, 1'000'000};
    for (;;) {
        const update_progress progress = continue_update(monotonic_clock_us());
        if (progress == update_progress::DONE || progress == update_progress::FAILED) {
            return waiting.empty();
        }
        if (progress == update_progress::WAITS) {
            nanosleep(&pause, nullptr);
        }
    }
}

// Writes everything that waits, at the end of the process.
bool write_waiting()
{
    if (update != nullptr) {
        update->hurry(last_lock_wait_us, monotonic_clock_us());
        if (finish_update()) {
            return true;
        }
    }
    begin_update(last_lock_wait_us, monotonic_clock_us());
    return finish_update();
}

// Removes pending files that were merged but could not be removed then.
void remove_own_pending()
{
    closed_pending.push_back(std::exchange(own_pending, {}));
    for (pending_file& file : closed_pending) {
        if (file) {
            remove_pending(opened_item()->store, &file);
        }
    }
    closed_pending.clear();
}

bool anything_unsaved()
{
    return std::any_of(waiting.begin(), waiting.end(),
                       [](const auto& entry) { return entry.second.where != place::PENDING_FILE; });
}

} // namespace

int store_waiting_settings(uint64_t now_us)
{
    if (update == nullptr) {
        if (waiting.empty() || now_us < due_us || !may_store() || list_is_open()) {
            return 0;
        }
        begin_update(lock_wait_us, now_us);
    }
    return continue_update(now_us) == update_progress::WAITS ? 0 : 1;
}

bool settings_are_written()
{
    return update != nullptr;
}

void reset_client_settings()
{
    update.reset();
    forget_waiting();
    own_pending = pending_file();
    closed_pending.clear();
    last_failure.clear();
    delay_us = write_delay_us;
    new_names = 0;
}

setting_state store_client_setting(std::string_view name, std::string_view value)
{
    const std::string text(value);
    if (!may_be_set(name, text)) {
        return setting_state::REFUSED;
    }
    if (is_stored(name, text)) {
        return setting_state::STORED;
    }
    if (!may_wait(name, text) || !take_into_document(name, text)) {
        return setting_state::REFUSED;
    }
    take_into_open_list(name, text);
    return keep(name, text);
}

setting_state client_setting_state(std::string_view name)
{
    const auto found = waiting.find(name);
    return found != waiting.end() ? state_of(found->second) : setting_state::STORED;
}

unstored_settings settings_not_stored()
{
    unstored_settings unstored;
    for (const auto& [name, setting] : waiting) {
        if (setting.where == place::PENDING_FILE) {
            continue;
        }
        ++unstored.count;
        if (unstored.names.size() < unstored_settings::max_names) {
            unstored.names.push_back(name);
        }
    }
    if (unstored.count > 0) {
        unstored.reason = why_settings_are_not_stored();
    }
    return unstored;
}

std::string why_settings_are_not_stored()
{
    if (!vexa_metadata_may_update) {
        return "the worker runs with --no-metadata-update";
    }
    return last_failure.empty() ? "not written yet" : last_failure;
}

// Tries twice, because a failure may be temporary.
void store_client_settings_now()
{
    if (!may_store()) {
        return;
    }
    if (!waiting.empty() && !write_waiting() && !write_waiting()) {
        fputs(anything_unsaved() ? "What clients have set is lost\n"
                                 : "What clients have set is taken over by the next start\n",
              stderr);
        return;
    }
    remove_own_pending();
}

} // namespace platform
