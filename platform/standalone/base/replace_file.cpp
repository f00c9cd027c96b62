#include "platform/standalone/base/replace_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/base/random_bytes.h"

namespace platform {

namespace {

constexpr size_t random_name_bytes = 8;

int fail(replace_failure* failure, const char* step)
{
    *failure = {.step = step, .error_number = errno, .replaced = false};
    return -1;
}

int write_all(int fd, std::string_view contents, const file_operations& operations)
{
    while (!contents.empty()) {
        const ssize_t step = operations.write(fd, contents.data(), contents.size());
        if (step < 0) {
            return -1;
        }
        if (step == 0) {
            errno = ENOSPC;
            return -1;
        }
        contents.remove_prefix(static_cast<size_t>(step));
    }
    return 0;
}

// Gives the new file the mode and owner of the one it replaces, before it becomes visible.
int take_over_attributes(int folder, const char* name, int fd, const file_operations& operations)
{
    struct stat old = {};
    if (fstatat(folder, name, &old, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(old.st_mode)) {
        return 0;
    }
    struct stat fresh = {};
    if (fstat(fd, &fresh) != 0) {
        return -1;
    }
    if (old.st_uid != fresh.st_uid || old.st_gid != fresh.st_gid) {
        // Only a privileged process can change the owner; otherwise the new file belongs to this
        // process's user.
        (void)operations.change_owner(fd, old.st_uid, old.st_gid);
    }
    return operations.change_mode(fd, old.st_mode & 0777U);
}

int fill_temporary(int folder, const char* name, int fd, std::string_view contents,
                   replace_failure* failure, const file_operations& operations)
{
    if (write_all(fd, contents, operations) != 0) {
        return fail(failure, "write");
    }
    if (take_over_attributes(folder, name, fd, operations) != 0) {
        return fail(failure, "set the mode of");
    }
    if (operations.sync(fd) != 0) {
        return fail(failure, "sync");
    }
    return 0;
}

} // namespace

int write_temporary(int folder, const char* name, std::string_view contents, mode_t mode,
                    std::string* temporary, replace_failure* failure,
                    const file_operations& operations)
{
    *temporary = std::string(name) + std::string(temporary_mark) + random_hex(random_name_bytes);
    const unique_fd fd(operations.open_at(folder, temporary->c_str(),
                                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode));
    if (!fd) {
        return fail(failure, "create");
    }
    if (fill_temporary(folder, name, fd.get(), contents, failure, operations) != 0) {
        (void)operations.unlink_at(folder, temporary->c_str());
        return -1;
    }
    return 0;
}

int put_in_place(int folder, const char* temporary, const char* name, replace_failure* failure,
                 const file_operations& operations)
{
    if (operations.rename_at(folder, temporary, name) != 0) {
        return fail(failure, "rename");
    }
    if (operations.sync(folder) != 0) {
        *failure = {.step = "sync the folder of", .error_number = errno, .replaced = true};
        return -1;
    }
    return 0;
}

int replace_file(int folder, const char* name, std::string_view contents, mode_t mode,
                 replace_failure* failure, const file_operations& operations)
{
    std::string temporary;
    if (write_temporary(folder, name, contents, mode, &temporary, failure, operations) != 0) {
        return -1;
    }
    const int result = put_in_place(folder, temporary.c_str(), name, failure, operations);
    if (result != 0 && !failure->replaced) {
        (void)operations.unlink_at(folder, temporary.c_str());
    }
    return result;
}

void remove_temporary_files(int folder, std::string_view name, const file_operations& operations,
                            std::span<const std::string> kept)
{
    const std::string beginning = std::string(name) + std::string(temporary_mark);
    for (const std::string& found : names_in_folder(folder)) {
        if (found.starts_with(beginning) &&
            std::find(kept.begin(), kept.end(), found) == kept.end()) {
            (void)operations.unlink_at(folder, found.c_str());
        }
    }
}

} // namespace platform
