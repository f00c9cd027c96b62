#include "platform/standalone/base/folders.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr mode_t folder_mode = 0700;
constexpr mode_t rights_of_others = 0077;
constexpr mode_t write_rights_of_others = 0022;

int make_one_folder(const char* path)
{
    if (mkdir(path, folder_mode) == 0) {
        return 0;
    }
    // For an existing parent such as "/" or a read-only mount mkdir may fail with an error of its
    // own. When the name exists, the error of looking at it is the one that matters.
    const int mkdir_errno = errno;
    struct stat status = {};
    if (stat(path, &status) != 0) {
        errno = mkdir_errno != EEXIST ? mkdir_errno : errno;
        return -1;
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

std::string why_no_folder_is_opened(int code)
{
    return code == ELOOP || code == ENOTDIR ? "not a folder, or a link" : error_text(code);
}

std::string not_permitted(const char* reason)
{
    errno = EPERM;
    return reason;
}

// "" when the open folder is private, or has been made so; otherwise the reason, and errno.
std::string privacy_fault(int folder, readable_folder readable)
{
    struct stat status = {};
    if (fstat(folder, &status) != 0) {
        return error_text(errno);
    }
    if (status.st_uid != geteuid()) {
        return not_permitted("owned by another user");
    }
    if ((status.st_mode & write_rights_of_others) != 0) {
        return not_permitted("writable by other users");
    }
    if ((status.st_mode & rights_of_others) == 0) {
        return "";
    }
    if (readable == readable_folder::REFUSED) {
        return not_permitted("readable by other users");
    }
    return fchmod(folder, folder_mode) == 0 ? "" : error_text(errno);
}

} // namespace

int make_folders(const char* path)
{
    const std::string whole(path);
    for (size_t slash = whole.find('/', 1); slash != std::string::npos;
         slash = whole.find('/', slash + 1)) {
        if (make_one_folder(whole.substr(0, slash).c_str()) != 0) {
            return -1;
        }
    }
    return make_one_folder(path);
}

unique_fd open_folder(const char* path)
{
    return unique_fd(open_file(path, O_RDONLY | O_DIRECTORY));
}

unique_fd open_private_folder(int parent, const char* name, readable_folder readable,
                              std::string* reason)
{
    unique_fd folder(open_file_at(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    const std::string fault =
        folder ? privacy_fault(folder.get(), readable) : why_no_folder_is_opened(errno);
    if (fault.empty()) {
        return folder;
    }
    if (reason != nullptr) {
        *reason = fault;
    }
    return {};
}

std::vector<std::string> names_in_folder(int folder)
{
    std::vector<std::string> names;
    unique_fd listing(open_file_at(folder, ".", O_RDONLY | O_DIRECTORY));
    if (!listing) {
        return names;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(listing.get()), closedir);
    if (!entries) {
        return names;
    }
    (void)listing.release(); // closedir closes it
    while (const dirent* entry = readdir(entries.get())) {
        names.emplace_back(entry->d_name);
    }
    return names;
}

} // namespace platform
