#include "platform/standalone/base/file_operations.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/kept_names.h"

namespace platform {

namespace {

int sync_file(int fd)
{
    int result = fsync(fd);
    while (result != 0 && errno == EINTR) {
        result = fsync(fd);
    }
    return result;
}

int rename_file(int folder, const char* from, const char* to)
{
    return renameat(folder, kept_name(folder, from), folder, kept_name(folder, to));
}

// For file systems whose rename accepts no flags: adds the new name, then removes the old one.
int link_and_unlink(int folder, const char* from, const char* to)
{
    if (linkat(folder, from, folder, to, 0) != 0) {
        return -1;
    }
    return unlinkat(folder, from, 0);
}

int rename_to_new_name(int folder, const char* from, const char* to)
{
    const char* kept_from = kept_name(folder, from);
    const char* kept_to = kept_name(folder, to);
    const int result = renameat2(folder, kept_from, folder, kept_to, RENAME_NOREPLACE);
    if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
        return link_and_unlink(folder, kept_from, kept_to);
    }
    return result;
}

int unlink_file(int folder, const char* name)
{
    return unlinkat(folder, kept_name(folder, name), 0);
}

} // namespace

const file_operations system_file_operations = {
    .open_at = open_file_at,
    .write = write_some,
    .truncate = ftruncate,
    .change_mode = fchmod,
    .change_owner = fchown,
    .sync = sync_file,
    .rename_at = rename_file,
    .rename_new_at = rename_to_new_name,
    .unlink_at = unlink_file,
};

} // namespace platform
