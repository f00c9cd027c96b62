#include "platform/standalone/metadata/pending_files.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "platform/standalone/metadata/set_aside.h"

namespace platform {

namespace {

constexpr mode_t pending_mode = 0600;
constexpr int read_flags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
// Limit of all files together; the excess is not read.
constexpr uint64_t max_pending_bytes = 2 * uint64_t{max_pending_file};

constexpr size_t max_digits = 9;
constexpr uint32_t max_number = 999'999'999;

// The number in a pending file's name, 0 for other names.
uint32_t number_of(std::string_view name)
{
    const std::string_view begin = pending_name;
    if (!name.starts_with(begin) || name.size() > begin.size() + max_digits) {
        return 0;
    }
    uint32_t number = 0;
    const char* end = name.data() + name.size();
    const auto result = std::from_chars(name.data() + begin.size(), end, number);
    return result.ec == std::errc() && result.ptr == end && name[begin.size()] != '0' ? number : 0;
}

std::vector<uint32_t> pending_numbers(int folder)
{
    std::vector<uint32_t> numbers;
    for (const std::string& name : names_in_folder(folder)) {
        if (const uint32_t number = number_of(name); number != 0) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

bool lock_pending(int fd)
{
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
}

// --- the owner's side ---------------------------------------------------------------------------

// False when another process inspected or removed the file between its creation and its locking.
bool make_pending_numbered(const metadata_store& store, pending_file* own, uint32_t number)
{
    own->name = pending_name + std::to_string(number);
    own->fd.reset(store.operations->open_at(store.folder, own->name.c_str(),
                                            O_RDWR | O_APPEND | O_CREAT | O_EXCL | read_flags,
                                            pending_mode));
    if (!own->fd) {
        return false;
    }
    if (!lock_pending(own->fd.get()) || pending_file_is_lost(*own)) {
        own->fd.reset();
        errno = EEXIST;
        return false;
    }
    return true;
}

bool make_pending(const metadata_store& store, pending_file* own, std::string* reason)
{
    constexpr int max_tries = 4;
    *own = pending_file();
    for (int tries = 0; tries < max_tries; ++tries) {
        const std::vector<uint32_t> numbers = pending_numbers(store.folder);
        const uint32_t latest = numbers.empty() ? 0 : numbers.back();
        if (numbers.size() >= max_pending_files || latest == max_number) {
            *reason = "too many pending files";
            return false;
        }
        if (make_pending_numbered(store, own, latest + 1)) {
            return true;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    *reason = error_text(errno);
    return false;
}

// Leaves enough room that a metadata file with all the records would not become too large.
uint64_t room_for_records(const metadata_store& store)
{
    const file_identity stored = identity_at(store.folder, metadata_file_name);
    const uint64_t taken =
        stored.exists ? static_cast<uint64_t>(std::max<int64_t>(stored.size, 0)) : 0;
    return std::min<uint64_t>(max_pending_file,
                              max_metadata_file - std::min<uint64_t>(taken, max_metadata_file));
}

// Appends with a single write, or not at all.
bool append_whole(const metadata_store& store, const pending_file& file, off_t size,
                  std::string_view record)
{
    const ssize_t written = store.operations->write(file.fd.get(), record.data(), record.size());
    if (written == static_cast<ssize_t>(record.size())) {
        return true;
    }
    const int error_number = written < 0 ? errno : ENOSPC;
    if (written > 0) {
        (void)store.operations->truncate(file.fd.get(), size);
    }
    errno = error_number;
    return false;
}

// A fragment that a failed write left must not become the start of the next record.
bool ends_torn(int fd, off_t size)
{
    char last = '\n';
    return size > 0 && pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

// Appends a line. *size becomes the size of the file before it.
bool append_line(const metadata_store& store, const pending_file& file, std::string_view line,
                 off_t* size)
{
    struct stat status = {};
    if (fstat(file.fd.get(), &status) != 0) {
        return false;
    }
    *size = status.st_size;
    if (ends_torn(file.fd.get(), status.st_size)) {
        return append_whole(store, file, *size, '\n' + std::string(line));
    }
    return append_whole(store, file, *size, line);
}

// --- readers ------------------------------------------------------------------------------------

void report_unusable(const std::string& name, std::string_view reason)
{
    error_line("Cannot read pending metadata", name, reason);
}

// The file, open for reading and appending. Empty with errno on failure. A file of this user
// without write permission gets it back: it could never be merged, so its settings would override
// the metadata file for ever.
unique_fd open_to_append(int folder, const char* name)
{
    constexpr int flags = O_RDWR | O_APPEND | read_flags;
    unique_fd fd(open_file_at(folder, name, flags));
    if (fd || errno != EACCES) {
        return fd;
    }
    const unique_fd readable(open_file_at(folder, name, O_RDONLY | read_flags));
    struct stat status = {};
    if (readable && fstat(readable.get(), &status) == 0 && S_ISREG(status.st_mode) &&
        fchmod(readable.get(), pending_mode) == 0) {
        fd.reset(open_file_at(folder, name, flags));
    } else {
        errno = EACCES;
    }
    return fd;
}

// A file that cannot be made writable is read, but never merged.
bool open_pending(const metadata_store& store, found_pending* found)
{
    const char* name = found->file.name.c_str();
    found->file.fd = open_to_append(store.folder, name);
    const bool writable = static_cast<bool>(found->file.fd);
    if (!writable && (errno == EACCES || errno == EPERM || errno == EROFS)) {
        found->file.fd.reset(open_file_at(store.folder, name, O_RDONLY | read_flags));
    }
    if (!found->file.fd) {
        if (errno != ENOENT) { // its owner has just finished with it
            report_unusable(found->file.name, error_text(errno));
        }
        return false;
    }
    found->abandoned = writable && lock_pending(found->file.fd.get());
    return true;
}

bool read_pending(const metadata_store& store, uint64_t room, found_pending* found)
{
    struct stat status = {};
    if (!open_pending(store, found)) {
        return false;
    }
    if (fstat(found->file.fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        report_unusable(found->file.name, "not a regular file");
        return false;
    }
    if (static_cast<uint64_t>(status.st_size) > room) {
        report_unusable(found->file.name, "the file is too large");
        return false;
    }
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t size = read_fully(found->file.fd.get(), text.data(), text.size());
    if (size < 0) {
        report_unusable(found->file.name, error_text(errno));
        return false;
    }
    text.resize(static_cast<size_t>(size));
    found->state = identity_of(status);
    found->text = parse_pending(text, [&](const std::string& temporary) {
        return identity_at(store.folder, temporary.c_str()).exists;
    });
    found->file.temporaries = found->text.temporaries;
    found->file.damaged = found->text.damaged > 0;
    if (found->file.damaged) {
        report_unusable(found->file.name,
                        std::to_string(found->text.damaged) + " damaged lines are passed over");
    }
    return true;
}

} // namespace

append_result append_pending(const metadata_store& store, pending_file* own,
                             std::string_view record, std::string* reason, uint64_t others)
{
    if (others > 0 && others + record.size() > room_for_records(store)) {
        return append_result::FULL; // without creating a file
    }
    if (!*own && !make_pending(store, own, reason)) {
        return append_result::FAILED;
    }
    if (others + pending_size(*own) + record.size() > room_for_records(store)) {
        return append_result::FULL;
    }
    off_t size = 0;
    if (append_line(store, *own, record, &size)) {
        return append_result::APPENDED;
    }
    *reason = error_text(errno);
    if (size == 0) {
        remove_pending(store, own);
    }
    return append_result::FAILED;
}

uint64_t pending_size(const pending_file& own)
{
    struct stat status = {};
    const bool known = own && fstat(own.fd.get(), &status) == 0;
    return known ? static_cast<uint64_t>(std::max<off_t>(status.st_size, 0)) : 0;
}

bool pending_file_is_lost(const pending_file& own)
{
    struct stat status = {};
    return own && (fstat(own.fd.get(), &status) != 0 || status.st_nlink == 0);
}

bool mark_stored(const metadata_store& store, pending_file* file, const std::string& temporary)
{
    std::string record;
    append_stored_record(&record, temporary);
    off_t size = 0;
    if (!append_line(store, *file, record, &size)) {
        return false;
    }
    file->unmarked_size = size;
    return true;
}

bool unmark_stored(const metadata_store& store, pending_file* file, const std::string& temporary)
{
    if (store.operations->truncate(file->fd.get(), file->unmarked_size) == 0) {
        return true;
    }
    file->temporaries.push_back(temporary);
    return false;
}

void remove_pending(const metadata_store& store, pending_file* file)
{
    const bool removed = file->damaged
                             ? set_aside(store, file->name.c_str())
                             : store.operations->unlink_at(store.folder, file->name.c_str()) == 0;
    if (removed || errno == ENOENT) {
        for (const std::string& temporary : file->temporaries) {
            (void)store.operations->unlink_at(store.folder, temporary.c_str());
        }
        *file = pending_file();
    } else {
        (void)store.operations->truncate(file->fd.get(), 0);
    }
}

bool has_pending_files(const metadata_store& store)
{
    return !pending_numbers(store.folder).empty();
}

std::vector<found_pending> find_pending(const metadata_store& store,
                                        const std::vector<std::string>& except)
{
    std::vector<found_pending> all;
    uint64_t room = max_pending_bytes;
    std::vector<uint32_t> numbers = pending_numbers(store.folder);
    if (numbers.size() > max_pending_files) {
        report_unusable(store.path, "too many pending files");
        numbers.resize(max_pending_files);
    }
    for (const uint32_t number : numbers) {
        found_pending found;
        found.file.name = pending_name + std::to_string(number);
        if (std::find(except.begin(), except.end(), found.file.name) != except.end()) {
            continue;
        }
        if (read_pending(store, std::min<uint64_t>(room, max_pending_file), &found)) {
            room -= static_cast<uint64_t>(found.state.size);
            all.push_back(std::move(found));
        }
    }
    return all;
}

} // namespace platform
