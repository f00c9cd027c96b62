#include "platform/standalone/metadata/metadata_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/replace_stored.h"
#include "platform/standalone/metadata/stored_file.h"

namespace platform {

namespace {

void report(const metadata_store& store, std::string_view what, std::string_view reason)
{
    error_line(what, store.path, reason);
}

metadata_v4_metadata_context* list_of(stored_file&& file)
{
    if (file.result != read_result::READ) {
        return new_metadata_list();
    }
    metadata_v4_metadata_context* list = new_metadata_list(std::move(file.document));
    list->stored = file.identity;
    return list;
}

// The list, or null after a message when the file cannot be read now.
metadata_v4_metadata_context* list_or_report(const metadata_store& store, stored_file&& file)
{
    if (file.result == read_result::UNAVAILABLE) {
        report(store, "Cannot read metadata file", file.reason);
        return nullptr;
    }
    return list_of(std::move(file));
}

// False, after a message, when the lock is not available.
bool take_lock(const metadata_store& store, file_lock* lock, std::string_view what,
               std::string* reason = nullptr)
{
    std::string problem;
    switch (lock->take(store.folder, metadata_lock_name, store.lock_limit_us, store.stop)) {
    case lock_result::TAKEN:
        return true;
    case lock_result::BUSY:
        problem = "another process holds its lock";
        break;
    case lock_result::FAILED:
        problem = "its lock cannot be taken: " + error_text(errno);
        break;
    }
    refuse_write(store, what, problem, reason);
    return false;
}

metadata_v4_metadata_context* list_not_to_be_written()
{
    metadata_v4_metadata_context* list = new_metadata_list();
    list->write_refused = true;
    return list;
}

// Reads the file once more under the lock: another process may have set it aside and written a good
// one meanwhile.
metadata_v4_metadata_context* replace_damaged(const metadata_store& store, file_lock* lock)
{
    if (!lock->held() && !take_lock(store, lock, "Cannot set aside metadata file")) {
        return list_not_to_be_written();
    }
    stored_file file = read_stored(store);
    if (file.result == read_result::DAMAGED && !set_aside(store, metadata_file_name)) {
        return list_not_to_be_written();
    }
    return list_or_report(store, std::move(file));
}

void replay_pending(const metadata_store& store, metadata_v4_metadata_context* list)
{
    for (const found_pending& found : find_pending(store)) {
        if (set_item_entries(list, found.text.settings).refused > 0) {
            report(store, "Cannot take over all pending metadata", found.file.name);
            continue;
        }
        list->unwritten_settings =
            list->unwritten_settings || (found.abandoned && !found.text.settings.empty());
        list->replayed.push_back({found.file.name, found.state});
    }
}

bool was_replayed(const metadata_v4_metadata_context& list, const found_pending& found)
{
    return std::any_of(list.replayed.begin(), list.replayed.end(), [&](const auto& replayed) {
        return replayed.name == found.file.name && replayed.state.inode == found.state.inode &&
               replayed.state.same_contents(found.state);
    });
}

} // namespace

metadata_v4_metadata_context* load_metadata(const metadata_store& store)
{
    file_lock lock;
    if (has_pending_files(store)) {
        // Excludes processes that merge them. If the folder does not allow a lock, the file is read
        // without it.
        (void)lock.take(store.folder, metadata_lock_name, store.lock_limit_us, store.stop);
    }
    stored_file file = read_stored(store);
    metadata_v4_metadata_context* list = nullptr;
    if (file.result == read_result::DAMAGED) {
        report(store, "Damaged metadata file", file.reason);
        list = replace_damaged(store, &lock);
    } else {
        list = list_or_report(store, std::move(file));
    }
    if (list != nullptr) {
        replay_pending(store, list);
    }
    return list;
}

bool has_unwritten_settings(const metadata_v4_metadata_context* list)
{
    return list != nullptr && list->unwritten_settings;
}

int store_metadata(const metadata_store& store, metadata_v4_metadata_context* list)
{
    if (list->write_refused) {
        return refuse_write(store, cannot_write_metadata, "the damaged file is still in its place",
                            nullptr);
    }
    file_lock lock;
    if (!take_lock(store, &lock, cannot_write_metadata, nullptr)) {
        return -1;
    }
    if (identity_at(store.folder, metadata_file_name) != list->stored) {
        return refuse_write(store, cannot_write_metadata,
                            "another process has changed it meanwhile", nullptr);
    }
    std::vector<found_pending> pending = find_pending(store);
    pending_work work;
    for (found_pending& found : pending) {
        keep_temporaries(found.file, &work);
        if (found.abandoned && was_replayed(*list, found)) {
            work.taken_in.push_back(&found.file);
        }
    }
    return replace_stored(store, list, work, nullptr);
}

void remove_left_temporaries(const metadata_store& store)
{
    pending_work work;
    for (const found_pending& found : find_pending(store)) {
        keep_temporaries(found.file, &work);
    }
    remove_temporary_files(store.folder, metadata_file_name, *store.operations, work.kept);
}

} // namespace platform
