// Starts a worker that is not a child of this process and has its own session. Its standard error
// is read until it serves.
#pragma once

#include <string>

#include "common/unique_fd.h"

// Appends what can be read from `fd` without waiting to *output, of which it keeps the last 16 KiB.
// Reads 64 KiB at most, since a worker may write faster than they are read. False at the end.
bool read_portion(int fd, std::string* output);

class started_worker {
public:
    // Returns 0, or an errno if the program cannot be found or run.
    int start(const std::string& picture);

    // Reads the worker's output; waits up to `wait_ms` for some.
    void read_output(int wait_ms);

    // Whether read_output() has noticed the worker's end.
    bool ended() const { return ended_; }

    // Whether it ended because another worker already serves the picture.
    bool other_worker_serves() const;

    // The reason why it ended, in one line, from its last lines of output.
    std::string reason() const;

    static std::string program(); // the program that start() runs

private:
    unique_fd pipe_; // read end of the worker's standard error
    std::string output_;
    bool ended_ = false;
};
