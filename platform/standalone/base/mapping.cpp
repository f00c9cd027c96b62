#include "platform/standalone/base/mapping.h"

#include <cerrno>
#include <sys/mman.h>

namespace platform {

mapping& mapping::operator=(mapping&& other) noexcept
{
    if (this != &other) {
        reset();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

mapping mapping::shared(int fd, uint64_t offset, size_t size, int protection)
{
    if (offset > INT64_MAX) {
        errno = EOVERFLOW;
        return {};
    }
    void* address = mmap(nullptr, size, protection, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (address == MAP_FAILED) {
        return {};
    }
    return {address, size};
}

void mapping::reset()
{
    if (data_ != nullptr) {
        munmap(std::exchange(data_, nullptr), std::exchange(size_, 0));
    }
}

} // namespace platform
