#include "platform/standalone/metadata/metadata_file.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

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

using list_owner =
    std::unique_ptr<metadata_v4_metadata_context, void (*)(metadata_v4_metadata_context*)>;

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
bool take_lock(const metadata_store& store, file_lock* lock, std::string_view what)
{
    switch (lock->take(store.folder, metadata_lock_name, store.lock_limit_us, store.stop)) {
    case lock_result::TAKEN:
        return true;
    case lock_result::BUSY:
        report(store, what, "another process holds its lock");
        return false;
    case lock_result::FAILED:
        break;
    }
    report(store, what, "its lock cannot be taken: " + error_text(errno));
    return false;
}

// Gives the damaged file the first free name. False after a message.
bool set_aside(const metadata_store& store)
{
    for (int number = 1; number <= max_set_aside; ++number) {
        const std::string name = set_aside_name + std::to_string(number);
        if (store.operations->rename_new_at(store.folder, metadata_file_name, name.c_str()) == 0) {
            report(store, "Metadata file set aside", "now named " + name);
            return true;
        }
        if (errno != EEXIST) {
            report(store, "Cannot set aside metadata file", error_text(errno));
            return false;
        }
    }
    report(store, "Cannot set aside metadata file", "too many were set aside before");
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
metadata_v4_metadata_context* replace_damaged(const metadata_store& store)
{
    file_lock lock;
    if (!take_lock(store, &lock, "Cannot set aside metadata file")) {
        return list_not_to_be_written();
    }
    stored_file file = read_stored(store);
    if (file.result == read_result::DAMAGED && !set_aside(store)) {
        return list_not_to_be_written();
    }
    return list_or_report(store, std::move(file));
}

int replace_stored(const metadata_store& store, metadata_v4_metadata_context* list)
{
    const std::string text = metadata_list_text(*list);
    if (text.size() > max_metadata_file) {
        report(store, "Cannot write metadata file", "it would become too large");
        return -1;
    }
    remove_temporary_files(store.folder, metadata_file_name, *store.operations);
    replace_failure failure;
    const int result = replace_file(store.folder, metadata_file_name, text, new_file_mode, &failure,
                                    *store.operations);
    if (result != 0) {
        report(store, std::string("Cannot ") + failure.step + " metadata file",
               error_text(failure.error_number));
    }
    if (result == 0 || failure.replaced) {
        list->stored = identity_at(store.folder, metadata_file_name);
    }
    return result;
}

} // namespace

metadata_v4_metadata_context* load_metadata(const metadata_store& store)
{
    stored_file file = read_stored(store);
    if (file.result == read_result::DAMAGED) {
        report(store, "Damaged metadata file", file.reason);
        return replace_damaged(store);
    }
    return list_or_report(store, std::move(file));
}

int store_metadata(const metadata_store& store, metadata_v4_metadata_context* list)
{
    constexpr std::string_view what = "Cannot write metadata file";
    if (list->write_refused) {
        report(store, what, "the damaged file is still in its place");
        return -1;
    }
    file_lock lock;
    if (!take_lock(store, &lock, what)) {
        return -1;
    }
    if (identity_at(store.folder, metadata_file_name) != list->stored) {
        report(store, what, "another process has changed it meanwhile");
        return -1;
    }
    return replace_stored(store, list);
}

int update_stored_metadata(const metadata_store& store, std::span<const entry_update> updates)
{
    constexpr std::string_view what = "Cannot write metadata file";
    file_lock lock;
    if (!take_lock(store, &lock, what)) {
        return -1;
    }
    stored_file file = read_stored(store);
    if (file.result == read_result::DAMAGED || file.result == read_result::UNAVAILABLE) {
        report(store, what, file.reason);
        return -1;
    }
    const list_owner list(list_of(std::move(file)), free_metadata_list);
    bool changed = false;
    for (const entry_update& update : updates) {
        const int result = set_item_entry(list.get(), update.name, update.value);
        if (result < 0) {
            report(store, what, "an entry is too large or holds a NUL");
            return -1;
        }
        changed = changed || result > 0;
    }
    return changed ? replace_stored(store, list.get()) : 0;
}

} // namespace platform
