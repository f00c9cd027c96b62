// Reading a page that is not there ends a process by SIGBUS. So the size of the memory and what is
// reserved of it must be final before they are examined: the seals come first.
#include "client/shared_area.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "common/unique_fd.h"

namespace {

constexpr uint64_t max_area_size = (uint64_t{1} << 32) - 1;

// Linux before 5.1 does not know the seal against writing, so its workers cannot set it.
bool kernel_seals_writing()
{
    const unique_fd probe(memfd_create("probe", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    return !probe || fcntl(probe.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE) == 0 || errno != EINVAL;
}

// Either seal against writing also prevents that memory is given back.
bool is_final(int seals)
{
    constexpr int size_seals = F_SEAL_SHRINK | F_SEAL_GROW;
    constexpr int write_seals = F_SEAL_WRITE | F_SEAL_FUTURE_WRITE;
    return (seals & size_seals) == size_seals &&
           ((seals & write_seals) != 0 || !kernel_seals_writing());
}

bool is_reserved(const struct stat& info, uint64_t size)
{
    constexpr uint64_t block_size = 512;
    return static_cast<uint64_t>(info.st_blocks) >= (size + block_size - 1) / block_size;
}

// Returns null, or the reason why the memory cannot be mapped.
const char* examine(int fd, uint64_t min_size, uint64_t* size)
{
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0) {
        return "the buffer's descriptor is not a memory file";
    }
    if (!is_final(seals)) {
        return "the buffer is not sealed against changes of its size and of its memory";
    }
    struct stat info = {};
    if (fstat(fd, &info) != 0) {
        return "the buffer's size is not known";
    }
    *size = static_cast<uint64_t>(info.st_size);
    if (*size == 0 || *size < min_size) {
        return "the buffer is shorter than the worker says";
    }
    if (*size > max_area_size) {
        return "the buffer has 4 GiB or more";
    }
    return is_reserved(info, *size) ? nullptr : "not all of the buffer's memory is reserved";
}

} // namespace

std::shared_ptr<shared_area> shared_area::map(int fd, uint64_t min_size, std::string* reason)
{
    uint64_t size = 0;
    if (const char* refusal = examine(fd, min_size, &size)) {
        *reason = refusal;
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
