// One owner for one file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

class owned_fd {
public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd) {}
    owned_fd(owned_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    owned_fd& operator=(owned_fd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    owned_fd(const owned_fd&) = delete;
    owned_fd& operator=(const owned_fd&) = delete;
    ~owned_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    void reset()
    {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

private:
    int fd_ = -1;
};
