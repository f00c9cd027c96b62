// One buffer: memory without a name, really reserved, mapped once and sealed.
#pragma once

#include <cstdint>

#include "platform/standalone/base/mapping.h"
#include "platform/standalone/base/unique_fd.h"
#include "platform/standalone/cnb/kernel_calls.h"

namespace platform {

struct reserve_failure {
    const char* step = nullptr; // what could not be done, for a message; null: nothing failed
    int error_number = 0;
};

class shared_buffer {
public:
    explicit shared_buffer(const kernel_calls* kernel = &system_kernel_calls) : kernel_(kernel) {}

    // Makes the memory's file, empty. 0, or -1 with errno.
    int create();

    // Takes `size` bytes of memory for good, zero, maps them for this process and shuts every other
    // way of changing them: from now on nobody can write through a descriptor, map for writing,
    // resize or unseal. A failure gives back what was taken, and may be tried again.
    // `between_pieces`, when given, is called after every 64 MiB, about 15 ms; it may end reserving
    // with false, which is EINTR.
    reserve_failure reserve(uint64_t size, bool (*between_pieces)() = nullptr);

    int fd() const { return file_.get(); } // -1 before create
    unsigned char* data() const { return memory_.data(); }
    uint64_t size() const { return memory_.size(); } // 0 before reserve

    // A read-only description of the memory of its own, which the caller closes; -1 with errno
    // before reserve. Without /proc it is a second descriptor of the one description: of no use for
    // writing either, by the seals.
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
