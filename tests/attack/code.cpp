#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

constexpr size_t page = 4096;

// Returns only when it is refused.
int execute(const std::string& path)
{
    char name[] = "attack";
    char* arguments[] = {name, nullptr};
    return outcome(execv(path.c_str(), arguments));
}

int fork_child(const std::string& /*argument*/)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    if (child < 0) {
        return errno;
    }
    waitpid(child, nullptr, 0);
    return 0;
}

int start_thread(const std::string& /*argument*/)
{
    pthread_t thread = {};
    const int error = pthread_create(
        &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    if (error == 0) {
        pthread_join(thread, nullptr);
    }
    return error;
}

int map(int protection, int flags, int fd, int (*then)(void*))
{
    void* address = mmap(nullptr, page, protection, flags, fd, 0);
    if (address == MAP_FAILED) {
        return errno;
    }
    const int result = then != nullptr ? then(address) : 0;
    munmap(address, page);
    return result;
}

int map_executable(const std::string& /*argument*/)
{
    return map(PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, nullptr);
}

int make_executable(const std::string& /*argument*/)
{
    return map(PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, [](void* address) {
        return outcome(mprotect(address, page, PROT_READ | PROT_EXEC));
    });
}

int map_executable_file(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int result = map(PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, nullptr);
    close(fd);
    return result;
}

// Afterwards readable memory would be executable, too.
int read_implies_execute(const std::string& /*argument*/)
{
    return outcome(personality(READ_IMPLIES_EXEC));
}

constexpr attempt attempts[] = {
    {"execute", execute},
    {"fork", fork_child},
    {"thread", start_thread},
    {"executable_memory", map_executable},
    {"make_executable", make_executable},
    {"executable_file", map_executable_file},
    {"read_implies_execute", read_implies_execute},
};

} // namespace

std::span<const attempt> code_attempts()
{
    return attempts;
}

} // namespace attack
