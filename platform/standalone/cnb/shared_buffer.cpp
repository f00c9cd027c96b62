#include "platform/standalone/cnb/shared_buffer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U // Linux 6.3
#endif

namespace platform {

namespace {

constexpr uint64_t max_piece = uint64_t{64} << 20;

// A memory file is created with all rights for everybody, and any process that has it open for
// reading could reopen it for writing.
constexpr mode_t read_only_mode = 0400;

// Above this limit the kernel sends a signal that ends the process.
bool exceeds_file_size_limit(uint64_t size)
{
    rlimit limit = {};
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
           size > limit.rlim_cur;
}

} // namespace

int shared_buffer::create()
{
    reset();
    constexpr unsigned flags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
    int fd = kernel_->create_memory_file("cnb", flags | MFD_NOEXEC_SEAL);
    if (fd < 0 && errno == EINVAL) {
        fd = kernel_->create_memory_file("cnb", flags);
    }
    file_.reset(fd);
    // At once, because a confined process cannot change modes.
    if (fd >= 0 && kernel_->change_mode(fd, read_only_mode) != 0) {
        const int reason = errno;
        file_.reset();
        errno = reason;
    }
    return file_ ? 0 : -1;
}

reserve_failure shared_buffer::reserve(uint64_t size, bool (*between_pieces)())
{
    const auto failed = [this](const char* step) {
        const reserve_failure failure = {step, errno};
        memory_.reset();
        // Releases the pages but keeps the descriptor, whose number others know.
        const int cut = ftruncate(file_.get(), 0);
        static_cast<void>(cut);
        return failure;
    };
    if (exceeds_file_size_limit(size)) {
        return {"file size limit", EFBIG};
    }
    if (reserve_pages(size, between_pieces) != 0) {
        return failed("reserving memory");
    }
    void* address = kernel_->map(size, file_.get());
    if (address == MAP_FAILED) {
        return failed("mapping");
    }
    memory_ = mapping(address, size);
    // The process may abort on purpose, and gigabytes of picture in a core file explain nothing.
    kernel_->advise(address, size, MADV_DONTDUMP);
    if (seal() != 0) {
        return failed("sealing");
    }
    return {};
}

// An interrupted call releases what it had reserved. A timer that fires faster than one piece takes
// would prevent progress for ever, so the pieces become smaller.
int shared_buffer::reserve_pages(uint64_t size, bool (*between_pieces)())
{
    const uint64_t min_piece = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    uint64_t piece = max_piece;
    for (uint64_t done = 0; done < size;) {
        if (done > 0 && between_pieces != nullptr && !between_pieces()) {
            errno = EINTR;
            return -1;
        }
        const uint64_t length = std::min(piece, size - done);
        if (kernel_->allocate(file_.get(), static_cast<off_t>(done), static_cast<off_t>(length)) ==
            0) {
            done += length;
        } else if (errno == EINTR) {
            piece = std::max(piece / 2, min_piece);
        } else {
            return -1;
        }
    }
    return 0;
}

// The existing mapping stays writable: only new mappings for writing are refused.
int shared_buffer::seal()
{
    constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    if (kernel_->add_seals(file_.get(), seals | F_SEAL_FUTURE_WRITE) == 0) {
        sealed_against_writing_ = true;
        return 0;
    }
    // Before Linux 5.1 the read-only descriptor and the mode have to suffice.
    return errno == EINVAL ? kernel_->add_seals(file_.get(), seals) : -1;
}

int shared_buffer::open_read_only() const
{
    if (!memory_) {
        errno = ENODATA;
        return -1;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(file_.get());
    const int fd = kernel_->open_read_only(path.c_str());
    if (fd >= 0 || !sealed_against_writing_) {
        return fd;
    }
    return fcntl(file_.get(), F_DUPFD_CLOEXEC, 0);
}

void shared_buffer::reset()
{
    memory_.reset();
    file_.reset();
    sealed_against_writing_ = false;
}

} // namespace platform
