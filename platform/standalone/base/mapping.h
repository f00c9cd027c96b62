// One owner for one memory mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace platform {

class mapping {
public:
    mapping() = default;
    // Takes over a mapping that mmap returned.
    mapping(void* address, size_t size) : data_(static_cast<unsigned char*>(address)), size_(size)
    {
    }
    mapping(mapping&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0))
    {
    }
    mapping& operator=(mapping&& other) noexcept;
    mapping(const mapping&) = delete;
    mapping& operator=(const mapping&) = delete;
    ~mapping() { reset(); }

    // Maps `size` bytes of `fd` from `offset` (a multiple of the page size), shared. `protection`
    // is that of mmap. Empty with errno when the kernel refuses. The descriptor may be closed
    // afterwards.
    static mapping shared(int fd, uint64_t offset, size_t size, int protection);

    unsigned char* data() const { return data_; }
    size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

    void reset();

private:
    unsigned char* data_ = nullptr;
    size_t size_ = 0;
};

} // namespace platform
