// Stands for a disk that fills up: the limit to the size of the files that this process writes.
#pragma once

#include <csignal>
#include <sys/resource.h>

// While it lives a write beyond the limit fails with EFBIG. Children inherit both limit and signal.
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

    // Bytes that any file may have from now on. False when that cannot be set.
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
