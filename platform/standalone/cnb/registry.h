// The registry of a domain: a file that assigns buffer numbers and keeps the total size of the
// buffers under a limit, among any number of processes. When a process ends, however it ends, its
// number and bytes become free by themselves. File format and locking: docs/cnb-domain.md.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include "common/unique_fd.h"

namespace platform {

inline constexpr uint32_t max_buffers = 65535; // numbers 1 to 65535

enum class claim_result {
    TAKEN,
    NO_ROOM, // of bytes or numbers, or the registry is in use by another process: try again
    GONE,    // the file has been removed: open the registry again
    FAILED,  // errno; EPROTO: not a registry
};

class buffer_registry {
public:
    // Opens the registry in a domain's folder and creates the file if necessary. 0, or -1 with
    // errno.
    int open(int folder);
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Takes the lowest free number for a buffer of `bytes` bytes, if all buffers together then have
    // at most `limit` bytes. Never waits longer than a few milliseconds. After NO_ROOM the next
    // calls may return the same without looking, so that polling is cheap whatever the number of
    // buffers. Only one number can be held at a time; claiming a second one is an error (EBUSY).
    claim_result claim(uint64_t bytes, uint64_t limit);

    uint32_t number() const { return number_; } // 0 while nothing is held

    // Releases the number and the bytes. May be called without any.
    void release();

    // Closes the file. That releases what is held, unless a forked process also has the file open.
    void close();

    // Writes the present process id into the record: after a fork the child owns the number.
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
