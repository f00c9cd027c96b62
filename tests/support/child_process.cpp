#include "tests/support/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/signals.h"

child_process::child_process(const std::function<int()>& work)
{
    fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        perror("fork");
        abort();
    }
    if (pid_ == 0) {
        const int status = work();
        fflush(nullptr);
        _exit(status);
    }
}

child_process::~child_process()
{
    if (pid_ > 0) {
        kill_now();
        wait();
    }
}

int child_process::wait()
{
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void child_process::kill_now()
{
    send_signal(pid_, SIGKILL);
}

int run_in_child(const std::function<int()>& work)
{
    return child_process(work).wait();
}

int run_without_privileges(const std::function<int()>& work)
{
    return run_in_child([&] {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 ||
             setresgid(unprivileged_user, unprivileged_user, unprivileged_user) != 0 ||
             setresuid(unprivileged_user, unprivileged_user, unprivileged_user) != 0)) {
            return 255;
        }
        return work();
    });
}
