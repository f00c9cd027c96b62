#include "platform/standalone/base/folders.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

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

folder_privacy privacy_of(int folder)
{
    struct stat status = {};
    if (fstat(folder, &status) != 0) {
        return folder_privacy::UNKNOWN;
    }
    if (status.st_uid != geteuid()) {
        return folder_privacy::FOREIGN;
    }
    if ((status.st_mode & write_rights_of_others) != 0) {
        return folder_privacy::WRITABLE;
    }
    return (status.st_mode & rights_of_others) != 0 ? folder_privacy::READABLE
                                                    : folder_privacy::PRIVATE;
}

unique_fd open_private_folder(const char* path)
{
    unique_fd folder(open_file(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    const folder_privacy privacy = folder ? privacy_of(folder.get()) : folder_privacy::UNKNOWN;
    if (privacy == folder_privacy::PRIVATE) {
        return folder;
    }
    if (privacy != folder_privacy::UNKNOWN) {
        errno = EPERM;
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
