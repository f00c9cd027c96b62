// A lock between processes, held through an open file. It is inherited by a forked child and
// released when the last holder ends.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/unique_fd.h"

namespace platform {

enum class lock_result {
    TAKEN,
    BUSY,   // another process held it until the time limit, or `stop` became non-zero
    FAILED, // the lock file cannot be opened or locked: errno
};

enum class lock_file_kind {
    ANY_FILE,
    // Owned by this user, with one name, no rights for others and nothing but reading and writing
    // for the user. FAILED otherwise.
    PRIVATE_FILE,
};

class file_lock {
public:
    explicit file_lock(lock_file_kind kind = lock_file_kind::ANY_FILE) : kind_(kind) {}

    // Locks the file `name` in the open folder (AT_FDCWD: the working folder). The file is created
    // with mode 0600 and is not removed by release. A file that its last holder has removed does
    // not count as the lock. Waits up to `limit_us`; 0 tries once. `stop`, when given, ends the
    // wait early as soon as it is not 0.
    lock_result take(int folder, const char* name, uint64_t limit_us,
                     const std::atomic<int>* stop = nullptr);

    // True while `name` in the folder refers to the locked file.
    bool is_named(int folder, const char* name) const;

    // Why the lock file was refused, after FAILED; "" when errno says it.
    const char* refusal() const { return refusal_; }

    bool held() const { return static_cast<bool>(fd_); }
    int fd() const { return fd_.get(); }

    // Releases the lock, also for every process that has inherited it.
    void release();

private:
    lock_result try_once(int folder, const char* name);
    const char* reason_against(int fd) const;

    lock_file_kind kind_;
    const char* refusal_ = "";
    unique_fd fd_;
};

} // namespace platform
