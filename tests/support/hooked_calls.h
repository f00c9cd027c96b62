// Lets a test act, in the same thread, before each call with which a program examines a descriptor
// that it has received: fcntl, fstat and mmap. Linking this replaces the calls in the whole test
// program; threads without a hooked_calls use the system's.
#pragma once

#include <functional>

struct hooked_call {
    int number;       // 1 for the first since the object was created
    int fd;           // -1: memory without a file
    int command = -1; // of fcntl
    long argument = 0;
};

class hooked_calls {
public:
    // Runs `action` before each call of this thread. An errno that it returns makes the call fail;
    // after 0 the call is made.
    explicit hooked_calls(std::function<int(const hooked_call&)> action);
    hooked_calls(const hooked_calls&) = delete;
    hooked_calls& operator=(const hooked_calls&) = delete;
    ~hooked_calls();

    int count() const { return count_; } // calls so far

    // --- called by the replaced functions in this thread
    int before(int fd, int command = -1, long argument = 0);

private:
    std::function<int(const hooked_call&)> action_;
    int count_ = 0;
    bool acting_ = false; // calls of the action itself are not hooked
};
