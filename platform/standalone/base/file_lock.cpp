#include "platform/standalone/base/file_lock.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/time.h"

namespace platform {

namespace {

constexpr timespec pause_between_tries = {0, 5'000'000};

// O_NONBLOCK: opening must not wait when a FIFO has the name of the file.
constexpr int lock_file_flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

int open_lock_file(int folder, const char* name)
{
    unique_fd fd(open_file_at(folder, name, lock_file_flags, 0600));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

bool names_file(int folder, const char* name, int fd)
{
    struct stat held = {};
    struct stat named = {};
    return fstat(fd, &held) == 0 && fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// Each try opens the file again: its last holder may have removed it meanwhile, and a lock on a
// file without a name excludes nobody.
lock_result try_lock(int folder, const char* name, unique_fd* held)
{
    unique_fd fd(open_lock_file(folder, name));
    if (!fd) {
        return lock_result::FAILED;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK || errno == EINTR ? lock_result::BUSY : lock_result::FAILED;
    }
    if (!names_file(folder, name, fd.get())) {
        return lock_result::BUSY;
    }
    *held = std::move(fd);
    return lock_result::TAKEN;
}

} // namespace

// Polls instead of waiting in the kernel, because a blocking flock has no time limit.
lock_result file_lock::take(int folder, const char* name, uint64_t limit_us,
                            const std::atomic<int>* stop)
{
    const uint64_t deadline = saturating_add(monotonic_clock_us(), limit_us);
    for (;;) {
        // Determined before the try, so that a process that was not scheduled until the limit had
        // passed still tries once more.
        const bool is_last_try =
            monotonic_clock_us() >= deadline || (stop != nullptr && stop->load() != 0);
        const lock_result result = try_lock(folder, name, &fd_);
        if (result != lock_result::BUSY || is_last_try) {
            return result;
        }
        nanosleep(&pause_between_tries, nullptr);
    }
}

bool file_lock::is_named(int folder, const char* name) const
{
    return names_file(folder, name, fd_.get());
}

void file_lock::release()
{
    if (fd_) {
        flock(fd_.get(), LOCK_UN);
        fd_.reset();
    }
}

} // namespace platform
