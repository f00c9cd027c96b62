// One owner for one file descriptor.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

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
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd) {
            const int kept_errno = errno;
            // Not repeated after EINTR: on Linux the number is free by then and may already be in
            // use elsewhere.
            close(old);
            errno = kept_errno;
        }
    }

private:
    int fd_ = -1; // negative: none
};
