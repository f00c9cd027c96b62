// One buffer: anonymous memory, really reserved, mapped once and sealed.
#pragma once

#include <cstdint>

#include "common/unique_fd.h"
#include "platform/standalone/base/mapping.h"
#include "platform/standalone/cnb/kernel_calls.h"

namespace platform {

struct reserve_failure {
    const char* step = nullptr; // the step that failed, for a message; null: none
    int error_number = 0;
};

class shared_buffer {
public:
    explicit shared_buffer(const kernel_calls* kernel = &system_kernel_calls) : kernel_(kernel) {}

    // Creates the memory file, empty. 0, or -1 with errno.
    int create();

    // Reserves `size` bytes of zeroed memory, maps them for this process and seals the file: from
    // then on nobody can write through a descriptor, map for writing, resize or unseal. After a
    // failure everything is released, and the call may be repeated. `between_pieces`, when given,
    // is called after every 64 MiB, about every 15 ms; returning false ends the reservation with
    // EINTR.
    reserve_failure reserve(uint64_t size, bool (*between_pieces)() = nullptr);

    int fd() const { return file_.get(); } // -1 before create
    unsigned char* data() const { return memory_.data(); }
    uint64_t size() const { return memory_.size(); } // 0 before reserve

    // Opens the memory read-only, as a description of its own, which the caller closes; -1 with
    // errno before reserve. Without /proc it is a second descriptor of the same description, which
    // the seals also keep from being used for writing.
    int open_read_only() const;

    void reset();

private:
    int reserve_pages(uint64_t size, bool (*between_pieces)());
    int seal();

    const kernel_calls* kernel_;
    unique_fd file_;
    mapping memory_;
    bool sealed_against_writing_ = false;
};

} // namespace platform
