// One owner for one file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace platform {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Returns the descriptor, which the caller now owns.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

    // Closes the present descriptor. Keeps errno, so that the caller can still report an earlier
    // failure.
    void reset(int fd = -1);

private:
    int fd_ = -1; // negative: none
};

} // namespace platform
