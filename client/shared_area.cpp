#include "client/shared_area.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

std::shared_ptr<shared_area> shared_area::map(int fd, uint64_t min_size, std::string* reason)
{
    struct stat info = {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *reason = "the buffer's descriptor is not a regular file";
        return nullptr;
    }
    const auto size = static_cast<uint64_t>(info.st_size);
    if (size == 0 || size < min_size) {
        *reason = "the buffer is shorter than the worker says";
        return nullptr;
    }
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0) {
        *reason = "the buffer is not sealed against shrinking";
        return nullptr;
    }
    void* mapped = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        *reason = std::string("the buffer cannot be mapped: ") + strerror(errno);
        return nullptr;
    }
    return std::shared_ptr<shared_area>(new shared_area(static_cast<unsigned char*>(mapped), size));
}

shared_area::~shared_area()
{
    munmap(base, length);
}
