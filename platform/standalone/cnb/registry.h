// The registry of a domain: a file that assigns buffer numbers and keeps the total size of the
// buffers under a limit, among any number of processes. When a process ends, however it ends, its
// number and bytes become free by themselves. File format and locking: docs/cnb-domain.md.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include "common/unique_fd.h"

namespace platform {

inline constexpr const char* registry_name = "registry";
inline constexpr const char* blocked_registry_name = "registry.blocked"; // no longer used

inline constexpr uint32_t max_buffers = 65535; // numbers 1 to 65535

enum class claim_result {
    TAKEN,
    NO_ROOM, // of bytes or numbers, or another process claims at the same moment: try again
    FAILED,  // errno; EPROTO: not a registry
};

// Where a process's own record is: open file, offset and size in bytes.
struct registry_record {
    int file;
    uint32_t offset; // 0: no number is reserved
    uint32_t size;
};

class buffer_registry {
public:
    // Opens the registry in a domain's folder and creates the file if necessary. 0, or -1 with
    // errno.
    int open(int folder);
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Takes the lowest free number without any bytes. All that happens to the registry afterwards
    // is that this number's record is written. NO_ROOM: every number is locked.
    claim_result reserve_number();
    registry_record own_record() const;

    // Takes the reserved number, or the lowest free one, for a buffer of `bytes` bytes, if all
    // buffers together then have at most `limit` bytes. Never waits. After NO_ROOM the next calls
    // may return the same without looking, so that polling is cheap whatever the number of buffers.
    // Only one number can be held at a time; claiming a second one is an error (EBUSY).
    claim_result claim(uint64_t bytes, uint64_t limit);

    uint32_t number() const { return claimed_ ? number_ : 0; } // 0 while nothing is claimed

    // Releases the number and the bytes. May be called without any.
    void release();

    // Closes the file. That releases what is held, unless a forked process also has the file open.
    void close();

    // Writes the present process id into the record: after a fork the child owns the number.
    void note_owner();

private:
    claim_result claim_reserved(uint64_t bytes, uint64_t limit);
    claim_result room_for(uint64_t bytes, uint64_t limit) const;
    int write_record(uint64_t bytes, pid_t owner);
    void give_number_back();

    unique_fd file_;
    uint32_t id_numbers_ = 0; // of this process's PID namespace
    uint32_t number_ = 0;     // locked; 0: none
    bool claimed_ = false;    // for a buffer of `bytes_`
    uint64_t bytes_ = 0;
    pid_t owner_ = 0;
    uint64_t look_again_us_ = 0; // monotonic
};

} // namespace platform
