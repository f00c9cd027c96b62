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

class file_lock {
public:
    // Locks the file `name` in the open folder (AT_FDCWD: the working folder). The file is created
    // with mode 0600 and is not removed by release. A file that its last holder has removed does
    // not count as the lock. Waits up to `limit_us`; 0 tries once. `stop`, when given, ends the
    // wait early as soon as it is not 0.
    lock_result take(int folder, const char* name, uint64_t limit_us,
                     const std::atomic<int>* stop = nullptr);

    // True while `name` in the folder refers to the locked file.
    bool is_named(int folder, const char* name) const;

    bool held() const { return static_cast<bool>(fd_); }
    int fd() const { return fd_.get(); }

    // Releases the lock, also for every process that has inherited it.
    void release();

private:
    unique_fd fd_;
};

} // namespace platform
