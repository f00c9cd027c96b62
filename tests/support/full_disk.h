// Simulates a full disk with a limit on the size of the files that this process writes.
#pragma once

#include <csignal>
#include <sys/resource.h>

// During its lifetime a write beyond the limit fails with EFBIG. Children inherit the limit and the
// ignored signal.
class full_disk {
public:
    full_disk()
    {
        getrlimit(RLIMIT_FSIZE, &former_limit_);
        former_handler_ = signal(SIGXFSZ, SIG_IGN);
    }
    full_disk(const full_disk&) = delete;
    full_disk& operator=(const full_disk&) = delete;
    ~full_disk()
    {
        make_room();
        signal(SIGXFSZ, former_handler_);
    }

    // Limits every file to this size from now on. False when the limit cannot be set.
    bool set_room(rlim_t bytes) const
    {
        const rlimit limit = {bytes, former_limit_.rlim_max};
        return setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }

    bool make_room() const { return set_room(former_limit_.rlim_cur); }

private:
    rlimit former_limit_ = {};
    void (*former_handler_)(int) = nullptr;
};
