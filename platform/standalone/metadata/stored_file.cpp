#include "platform/standalone/metadata/stored_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

#include "common/unique_fd.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr int max_reads = 5; // of a file that changes while it is read

stored_file not_read(read_result result, std::string reason)
{
    return {.result = result, .reason = std::move(reason), .document = {}, .identity = {}};
}

stored_file damaged(std::string reason)
{
    return not_read(read_result::DAMAGED, std::move(reason));
}

stored_file unavailable(std::string reason)
{
    return not_read(read_result::UNAVAILABLE, std::move(reason));
}

// Classifies a failed open or read: is the file itself bad?
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

// Checks the size before reading. *steady becomes false when the file was written to meanwhile: a
// part of a file is never taken for the whole.
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

} // namespace

stored_file read_stored(const metadata_store& store)
{
    for (int attempt = 0; attempt < max_reads; ++attempt) {
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

} // namespace platform
