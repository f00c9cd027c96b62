#include "platform/standalone/metadata/metadata_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/base/unique_fd.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

namespace {

constexpr mode_t new_file_mode = 0600;
constexpr int most_reads = 5; // of a file that changes while it is read
constexpr std::string_view cannot_write = "Cannot write metadata file";

enum class read_result {
    READ,
    ABSENT,
    DAMAGED,     // the file's own fault: it is to be set aside
    UNAVAILABLE, // not the file's fault
};

struct stored_file {
    read_result result = read_result::ABSENT;
    std::string reason; // of DAMAGED and UNAVAILABLE
    text_document document;
    file_identity identity;
};

void report(const metadata_store& store, std::string_view what, std::string_view reason)
{
    error_line(what, store.path, reason);
}

stored_file damaged(std::string reason)
{
    return {.result = read_result::DAMAGED,
            .reason = std::move(reason),
            .document = {},
            .identity = {}};
}

stored_file unavailable(std::string reason)
{
    return {.result = read_result::UNAVAILABLE,
            .reason = std::move(reason),
            .document = {},
            .identity = {}};
}

// A failing open or read, told apart by whose fault it is.
stored_file unreadable(int error_number)
{
    switch (error_number) {
    case ENOENT:
        return {};
    case EACCES:
    case EPERM:
    case EIO:
        return damaged(error_text(error_number));
    case ELOOP: // a link, or a socket, in its place
    case ENXIO:
        return damaged("not a regular file");
    default:
        return unavailable(error_text(error_number));
    }
}

stored_file parsed(std::string_view text, const file_identity& identity)
{
    stored_file file = {
        .result = read_result::READ, .reason = {}, .document = {}, .identity = identity};
    text_fault fault;
    if (!parse_metadata(text, &file.document, &fault)) {
        const std::string place =
            fault.line > 0 ? "line " + std::to_string(fault.line) + ": " : std::string();
        return damaged(place + fault.reason);
    }
    return file;
}

// The size is looked at before a byte is read. *steady becomes false when the file was written to
// meanwhile: a part of a file is never taken for a whole.
stored_file read_open(int fd, bool* steady)
{
    struct stat before = {};
    if (fstat(fd, &before) != 0) {
        return unreadable(errno);
    }
    if (!S_ISREG(before.st_mode)) {
        return damaged("not a regular file");
    }
    if (static_cast<uint64_t>(before.st_size) > max_metadata_file) {
        return damaged("the file is too large");
    }
    std::string text(static_cast<size_t>(before.st_size) + 1, '\0');
    const ssize_t size = read_fully(fd, text.data(), text.size());
    struct stat after = {};
    if (size < 0 || fstat(fd, &after) != 0) {
        return unreadable(errno);
    }
    *steady = size == before.st_size && identity_of(after).same_contents(identity_of(before));
    text.resize(static_cast<size_t>(size));
    return parsed(text, identity_of(after));
}

stored_file read_stored(const metadata_store& store)
{
    for (int attempt = 0; attempt < most_reads; ++attempt) {
        const unique_fd fd(open_file_at(store.folder, metadata_file_name,
                                        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
        if (!fd) {
            return unreadable(errno);
        }
        bool steady = true;
        stored_file file = read_open(fd.get(), &steady);
        if (steady) {
            return file;
        }
    }
    return unavailable("it keeps changing while it is read");
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

// False after a message when the lock cannot be had.
bool take_lock(const metadata_store& store, file_lock* lock, std::string_view what,
               std::string* reason = nullptr)
{
    std::string told;
    switch (lock->take(store.folder, metadata_lock_name, store.lock_limit_us, store.stop)) {
    case lock_result::TAKEN:
        return true;
    case lock_result::BUSY:
        told = "another process holds its lock";
        break;
    case lock_result::FAILED:
        told = "its lock cannot be taken: " + error_text(errno);
        break;
    }
    report(store, what, told);
    if (reason != nullptr) {
        *reason = told;
    }
    return false;
}

metadata_v4_metadata_context* list_not_to_be_written()
{
    metadata_v4_metadata_context* list = new_metadata_list();
    list->write_refused = true;
    return list;
}

// Under the lock the file is read once more: another process may have set it aside and written a
// good one meanwhile.
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

// --- pending files --------------------------------------------------------------------------------

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

// What a write of the metadata file has to do with pending files.
struct pending_work {
    std::vector<pending_file*> taken_in; // all that they hold is in the text that is written
    std::vector<std::string> kept;       // temporary files that have to stay
};

void keep_temporaries(const pending_file& file, pending_work* work)
{
    work->kept.insert(work->kept.end(), file.temporaries.begin(), file.temporaries.end());
}

// True when the records no longer count for anything, so that `temporary` may go.
bool unmark_all(const metadata_store& store, const std::vector<pending_file*>& files,
                const std::string& temporary)
{
    bool all = true;
    for (pending_file* file : files) {
        all = unmark_stored(store, file, temporary) && all;
    }
    return all;
}

// From here until the temporary file is renamed or gone, a crash leaves either the old file and all
// settings pending, or the new file and none.
bool mark_all(const metadata_store& store, const std::vector<pending_file*>& files,
              const std::string& temporary)
{
    std::vector<pending_file*> marked;
    for (pending_file* file : files) {
        if (!mark_stored(store, file, temporary)) {
            const int error_number = errno;
            if (unmark_all(store, marked, temporary)) {
                (void)store.operations->unlink_at(store.folder, temporary.c_str());
            }
            errno = error_number;
            return false;
        }
        marked.push_back(file);
    }
    return true;
}

void remove_taken_in(const metadata_store& store, const pending_work& work)
{
    for (pending_file* file : work.taken_in) {
        remove_pending(store, file);
    }
}

// --- writing --------------------------------------------------------------------------------------

// *failure says what went wrong.
int write_text(const metadata_store& store, const std::string& text, const pending_work& work,
               replace_failure* failure)
{
    std::string temporary;
    if (write_temporary(store.folder, metadata_file_name, text, new_file_mode, &temporary, failure,
                        *store.operations) != 0) {
        return -1;
    }
    if (!mark_all(store, work.taken_in, temporary)) {
        *failure = {.step = "write the pending part of", .error_number = errno, .replaced = false};
        return -1;
    }
    const int result = put_in_place(store.folder, temporary.c_str(), metadata_file_name, failure,
                                    *store.operations);
    if (result != 0 && !failure->replaced && unmark_all(store, work.taken_in, temporary)) {
        (void)store.operations->unlink_at(store.folder, temporary.c_str());
    }
    return result;
}

int refuse(const metadata_store& store, std::string_view what, const std::string& reason,
           std::string* told)
{
    report(store, what, reason);
    if (told != nullptr) {
        *told = reason;
    }
    return -1;
}

int replace_stored(const metadata_store& store, metadata_v4_metadata_context* list,
                   const pending_work& work, std::string* reason)
{
    const std::string text = metadata_list_text(*list);
    if (text.size() > max_metadata_file) {
        return refuse(store, cannot_write, "it would become too large", reason);
    }
    remove_temporary_files(store.folder, metadata_file_name, *store.operations, work.kept);
    replace_failure failure;
    const int result = write_text(store, text, work, &failure);
    if (result == 0 || failure.replaced) {
        list->stored = identity_at(store.folder, metadata_file_name);
    }
    if (result != 0) {
        return refuse(store, std::string("Cannot ") + failure.step + " metadata file",
                      error_text(failure.error_number), reason);
    }
    remove_taken_in(store, work);
    return 0;
}

// Sets what dead processes left, file by file, and notes what has been done with.
bool take_abandoned(const metadata_store& store, metadata_v4_metadata_context* list,
                    std::vector<found_pending>* all, pending_work* work)
{
    bool changed = false;
    for (found_pending& found : *all) {
        keep_temporaries(found.file, work);
        if (!found.abandoned) {
            continue;
        }
        const settings_result result = set_item_entries(list, found.text.settings);
        changed = changed || result.changed;
        if (result.refused == 0) {
            work->taken_in.push_back(&found.file);
        } else {
            report(store, "Cannot take over all pending metadata", found.file.name);
        }
    }
    return changed;
}

} // namespace

metadata_v4_metadata_context* load_metadata(const metadata_store& store)
{
    file_lock lock;
    if (has_pending_files(store)) {
        // Keeps away whoever takes them in. A folder that gives no lock is read all the same.
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
        return refuse(store, cannot_write, "the damaged file is still in its place", nullptr);
    }
    file_lock lock;
    if (!take_lock(store, &lock, cannot_write, nullptr)) {
        return -1;
    }
    if (identity_at(store.folder, metadata_file_name) != list->stored) {
        return refuse(store, cannot_write, "another process has changed it meanwhile", nullptr);
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

int update_stored_metadata(const metadata_store& store, const item_settings& settings,
                           pending_file* own, std::string* reason)
{
    file_lock lock;
    if (!take_lock(store, &lock, cannot_write, reason)) {
        return -1;
    }
    stored_file file = read_stored(store);
    if (file.result == read_result::DAMAGED || file.result == read_result::UNAVAILABLE) {
        return refuse(store, cannot_write, file.reason, reason);
    }
    const list_owner list(list_of(std::move(file)));
    const bool has_own = own != nullptr && *own;
    std::vector<found_pending> others =
        find_pending(store, has_own ? std::string_view(own->name) : std::string_view());
    pending_work work;
    const bool changed_by_others = take_abandoned(store, list.get(), &others, &work);
    const settings_result result = set_item_entries(list.get(), settings);
    if (result.refused > 0) {
        return refuse(store, cannot_write, "an entry is too large or holds a NUL", reason);
    }
    if (has_own) {
        keep_temporaries(*own, &work);
        work.taken_in.push_back(own);
    }
    if (result.changed || changed_by_others) {
        return replace_stored(store, list.get(), work, reason);
    }
    remove_taken_in(store, work);
    return 0;
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
