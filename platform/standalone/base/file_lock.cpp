#include "platform/standalone/base/file_lock.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/private_file.h"
#include "platform/time.h"

namespace platform {

namespace {

constexpr timespec pause_between_tries = {0, 5'000'000};
constexpr mode_t private_mode = 0600;

bool names_file(int folder, const char* name, int fd)
{
    struct stat held = {};
    struct stat named = {};
    return fstat(fd, &held) == 0 && fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

} // namespace

const char* file_lock::reason_against(int fd) const
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return "it cannot be examined";
    }
    if (kind_ == lock_file_kind::ANY_FILE) {
        return S_ISREG(status.st_mode) ? "" : "it is not a file";
    }
    const char* reason = reason_against_file(status);
    const bool more_rights = (status.st_mode & 07777U & ~private_mode) != 0;
    return reason[0] == '\0' && more_rights ? "its mode is not 0600" : reason;
}

// Each try opens the file again: its last holder may have removed it meanwhile, and a lock on a
// file without a name excludes nobody.
lock_result file_lock::try_once(int folder, const char* name)
{
    unique_fd fd(open_file_at(folder, name, O_RDWR | O_CREAT | private_file_flags, private_mode));
    if (!fd) {
        return lock_result::FAILED;
    }
    refusal_ = reason_against(fd.get());
    if (refusal_[0] != '\0') {
        errno = EINVAL;
        return lock_result::FAILED;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK || errno == EINTR ? lock_result::BUSY : lock_result::FAILED;
    }
    if (!names_file(folder, name, fd.get())) {
        return lock_result::BUSY;
    }
    fd_ = std::move(fd);
    return lock_result::TAKEN;
}

// Polls instead of waiting in the kernel, because a blocking flock has no time limit.
lock_result file_lock::take(int folder, const char* name, uint64_t limit_us,
                            const std::atomic<int>* stop)
{
    const uint64_t deadline = saturating_add(monotonic_clock_us(), limit_us);
    refusal_ = "";
    for (;;) {
        // Determined before the try, so that a process that was not scheduled until the limit had
        // passed still tries once more.
        const bool is_last_try =
            monotonic_clock_us() >= deadline || (stop != nullptr && stop->load() != 0);
        const lock_result result = try_once(folder, name);
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
