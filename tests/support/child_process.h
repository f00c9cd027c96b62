// Runs work in a child process, for tests that kill it, race with it, or need other rights.
#pragma once

#include <functional>
#include <sys/types.h>

class child_process {
public:
    // Starts `work` in a forked child; its result is the exit status.
    explicit child_process(const std::function<int()>& work);
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
    ~child_process(); // kills the child when it still runs

    // The exit status, or minus the signal that ended it.
    int wait();
    void kill_now();
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// Runs `work` in a child and waits for it.
int run_in_child(const std::function<int()>& work);

// The same without the rights of the superuser: as "nobody" when the tests run as root.
int run_without_privileges(const std::function<int()>& work);

inline constexpr uid_t unprivileged_user = 65534;
