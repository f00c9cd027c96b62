#include "platform/standalone/metadata/picture_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr int picture_flags = O_RDONLY | O_NONBLOCK | O_NOCTTY;

// File systems whose regular files are answers of the kernel: they have no end that can be told
// beforehand, and reading one may wait for ever.
constexpr std::array<unsigned long, 10> kernel_file_systems = {
    PROC_SUPER_MAGIC,   SYSFS_MAGIC,         DEBUGFS_MAGIC, TRACEFS_MAGIC, SECURITYFS_MAGIC,
    CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, SELINUX_MAGIC, BPF_FS_MAGIC,  PSTOREFS_MAGIC,
};

bool is_made_up(int fd)
{
    struct statfs file_system = {};
    if (fstatfs(fd, &file_system) != 0) {
        return false;
    }
    const auto type = static_cast<unsigned long>(file_system.f_type);
    return std::find(kernel_file_systems.begin(), kernel_file_systems.end(), type) !=
           kernel_file_systems.end();
}

bool same_file(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Opens `path` if it is the file of `wanted`.
unique_fd open_same(const char* path, const struct stat& wanted)
{
    unique_fd fd(open_file(path, picture_flags));
    struct stat found = {};
    if (!fd || fstat(fd.get(), &found) != 0) {
        return {};
    }
    if (!same_file(found, wanted)) {
        errno = ESTALE;
        return {};
    }
    return fd;
}

} // namespace

unique_fd open_picture(const char* path)
{
    return unique_fd(open_file(path, picture_flags));
}

unique_fd reopen_picture(int fd, const char* path, const char* descriptor_folder)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode) || is_made_up(fd)) {
        errno = EINVAL;
        return {};
    }
    const std::string link = std::string(descriptor_folder) + '/' + std::to_string(fd);
    unique_fd fresh = open_same(link.c_str(), status);
    return fresh ? std::move(fresh) : open_same(path, status);
}

std::string absolute_path(const char* path)
{
    std::array<char, PATH_MAX> folder = {};
    if (path[0] == '/' || getcwd(folder.data(), folder.size()) == nullptr) {
        return path;
    }
    return std::string(folder.data()) + '/' + path;
}

} // namespace platform
