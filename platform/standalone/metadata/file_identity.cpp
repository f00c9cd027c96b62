#include "platform/standalone/metadata/file_identity.h"

#include <fcntl.h>

namespace platform {

bool file_identity::same_contents(const file_identity& other) const
{
    return size == other.size && modified_s == other.modified_s && modified_ns == other.modified_ns;
}

file_identity identity_of(const struct stat& status)
{
    return {
        .exists = true,
        .device = status.st_dev,
        .inode = status.st_ino,
        .size = status.st_size,
        .modified_s = status.st_mtim.tv_sec,
        .modified_ns = status.st_mtim.tv_nsec,
        .changed_s = status.st_ctim.tv_sec,
        .changed_ns = status.st_ctim.tv_nsec,
    };
}

file_identity identity_at(int folder, const char* name)
{
    struct stat status = {};
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return {};
    }
    return identity_of(status);
}

} // namespace platform
