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
constexpr size_t names_of_process = 32;

const std::vector<std::string>& temporary_ends()
{
    static const auto& ends = *new std::vector<std::string>([] {
        std::vector<std::string> all(names_of_process);
        for (std::string& end : all) {
            end = random_hex(random_name_bytes);
        }
        return all;
    }());
    return ends;
}

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

// The regular file that is going to be replaced.
struct replaced_file {
    bool exists = false;
    struct stat status = {};
};

replaced_file find_replaced(int folder, const char* name)
{
    replaced_file old;
    old.exists =
        fstatat(folder, name, &old.status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.status.st_mode);
    return old;
}

constexpr mode_t rights = 0777;

// Created with the rights of the old file, because a confined process cannot change them later.
int open_temporary(int folder, const char* name, mode_t mode, const replaced_file& old,
                   const file_operations& operations)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    if (!old.exists) {
        return operations.open_at(folder, name, flags, mode);
    }
    const mode_t kept_mask = umask(0);
    const int fd = operations.open_at(folder, name, flags, old.status.st_mode & rights);
    umask(kept_mask);
    return fd;
}

// Gives the new file the owner and mode of the one it replaces, before it becomes visible.
int take_over_attributes(const struct stat& old, int fd, const file_operations& operations)
{
    struct stat fresh = {};
    if (fstat(fd, &fresh) != 0) {
        return -1;
    }
    if (old.st_uid != fresh.st_uid || old.st_gid != fresh.st_gid) {
        // Only a privileged process can change the owner; otherwise the new file belongs to this
        // process's user.
        (void)operations.change_owner(fd, old.st_uid, old.st_gid);
    }
    const mode_t wanted = old.st_mode & rights;
    const bool gives_more = (fresh.st_mode & rights & ~wanted) != 0;
    if ((fresh.st_mode & rights) == wanted || operations.change_mode(fd, wanted) == 0) {
        return 0;
    }
    return gives_more ? -1 : 0;
}

} // namespace

int create_temporary(int folder, const char* name, mode_t mode, std::string* temporary,
                     replace_failure* failure, const file_operations& operations)
{
    static size_t turn = 0;
    const replaced_file old = find_replaced(folder, name);
    int fd = -1;
    // Every name once, so that one whose file had to stay in place is passed over.
    for (size_t tries = 0; tries < names_of_process; ++tries) {
        *temporary = std::string(name) + std::string(temporary_mark) +
                     temporary_ends()[turn++ % names_of_process];
        fd = open_temporary(folder, temporary->c_str(), mode, old, operations);
        if (fd >= 0 || errno != EEXIST) {
            break;
        }
    }
    return fd < 0 ? fail(failure, "create") : fd;
}

int append_contents(int fd, std::string_view contents, replace_failure* failure,
                    const file_operations& operations)
{
    return write_all(fd, contents, operations) == 0 ? 0 : fail(failure, "write");
}

int complete_temporary(int folder, const char* name, int fd, replace_failure* failure,
                       const file_operations& operations)
{
    const replaced_file old = find_replaced(folder, name);
    if (old.exists && take_over_attributes(old.status, fd, operations) != 0) {
        return fail(failure, "set the mode of");
    }
    return operations.sync(fd) == 0 ? 0 : fail(failure, "sync");
}

std::vector<std::string> temporary_names(std::string_view name)
{
    std::vector<std::string> names;
    for (const std::string& end : temporary_ends()) {
        names.push_back(std::string(name) + std::string(temporary_mark) + end);
    }
    return names;
}

int write_temporary(int folder, const char* name, std::string_view contents, mode_t mode,
                    std::string* temporary, replace_failure* failure,
                    const file_operations& operations)
{
    const unique_fd fd(create_temporary(folder, name, mode, temporary, failure, operations));
    if (!fd) {
        return -1;
    }
    if (append_contents(fd.get(), contents, failure, operations) != 0 ||
        complete_temporary(folder, name, fd.get(), failure, operations) != 0) {
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
