#include "platform/standalone/cnb/kernel_calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

int allocate(int fd, off_t offset, off_t length)
{
    return fallocate(fd, 0, offset, length);
}

void* map_shared(size_t length, int fd)
{
    return mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

int add_seals(int fd, int seals)
{
    return fcntl(fd, F_ADD_SEALS, seals);
}

int open_read_only(const char* path)
{
    return open_file(path, O_RDONLY);
}

} // namespace

const kernel_calls system_kernel_calls = {
    .create_memory_file = memfd_create,
    .allocate = allocate,
    .map = map_shared,
    .advise = madvise,
    .change_mode = fchmod,
    .add_seals = add_seals,
    .open_read_only = open_read_only,
};

} // namespace platform
