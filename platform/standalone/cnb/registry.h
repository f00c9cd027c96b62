// The registry of a domain: one file that hands out buffer numbers and keeps the sum of the
// buffers' sizes under a limit, between any number of processes. What a process holds comes back by
// itself when it ends, in whatever way. File format and locking: docs/cnb-domain.md.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

inline constexpr uint32_t most_buffers = 65535; // numbers 1 to 65535

enum class claim_result {
    TAKEN,
    NO_ROOM, // of bytes or numbers, or another process is busy with the registry: try again
    GONE,    // the file has been removed: open the registry anew
    FAILED,  // errno; EPROTO: not a registry
};

class buffer_registry {
public:
    // Opens the registry in a domain's folder, making the file. 0, or -1 with errno.
    int open(int folder);
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Takes the lowest free number for a buffer of `bytes` bytes, when all buffers then have at
    // most `limit` bytes together. Never waits longer than a few milliseconds; after NO_ROOM the
    // next calls may answer the same without looking, so that asking in a loop costs little
    // whatever the number of buffers. Holds one number at a time; asking for a second one is an
    // error (EBUSY).
    claim_result claim(uint64_t bytes, uint64_t limit);

    uint32_t number() const { return number_; } // 0 while nothing is held

    // Gives the number and the bytes back. May be called without any.
    void release();

    // Closes the file, which gives back what is held unless a forked process has it open, too.
    void close();

    // Writes the present process id into the record: after a fork the number is the child's.
    void note_owner();

private:
    claim_result claim_locked(uint64_t bytes, uint64_t limit);
    int write_record(uint32_t number, uint64_t bytes, pid_t owner);

    unique_fd file_;
    uint32_t number_ = 0;
    uint64_t bytes_ = 0;
    pid_t owner_ = 0;
    uint64_t look_again_us_ = 0; // monotonic
};

} // namespace platform
