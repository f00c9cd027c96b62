// Between the caller and the worker stands a process that starts it and ends at once, so the worker
// is nobody's child. That process ends without a signal to the caller, and only a wait that names it
// hears of it: the caller's own children are not touched.
#include "client/started_worker.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t most_said = 16384; // bytes of the worker's words that are kept

// How the worker is to be started. Made before the process in between, which may not use memory.
class spawn_plan {
public:
    explicit spawn_plan(int standard_error)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_adddup2(&actions_, standard_error, STDERR_FILENO);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        sigset_t signals;
        posix_spawnattr_init(&attributes_);
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setflags(&attributes_, static_cast<short>(POSIX_SPAWN_SETSID) |
                                                   static_cast<short>(POSIX_SPAWN_SETSIGMASK) |
                                                   static_cast<short>(POSIX_SPAWN_SETSIGDEF));
    }
    spawn_plan(const spawn_plan&) = delete;
    spawn_plan& operator=(const spawn_plan&) = delete;
    ~spawn_plan()
    {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }

    int run(const char* program, char** arguments) const
    {
        pid_t pid = 0;
        return posix_spawnp(&pid, program, &actions_, &attributes_, arguments, environ);
    }

private:
    posix_spawn_file_actions_t actions_ = {};
    posix_spawnattr_t attributes_ = {};
};

// A fork whose end raises no signal. No memory is shared, all other arguments are 0, so their order
// (which differs between machines) does not matter.
pid_t fork_quietly()
{
    return static_cast<pid_t>(syscall(SYS_clone, 0UL, 0UL, 0UL, 0UL, 0UL));
}

int exit_status_of(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, static_cast<int>(__WCLONE)) < 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : ECHILD;
}

int spawn_detached(const std::string& program, const std::string& picture, int standard_error)
{
    std::vector<std::string> words = {"stillimage", "--file", picture};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const spawn_plan plan(standard_error);
    const pid_t between = fork_quietly();
    if (between == 0) {
        _exit(plan.run(program.c_str(), arguments.data()));
    }
    return between > 0 ? exit_status_of(between) : errno;
}

std::string_view without_line_end(std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

// Takes the last line off `text`.
std::string_view take_last_line(std::string_view& text)
{
    text = without_line_end(text);
    const size_t before = text.find_last_of('\n');
    const size_t start = before == std::string_view::npos ? 0 : before + 1;
    const std::string_view line = text.substr(start);
    text = text.substr(0, start);
    return line;
}

} // namespace

std::string started_worker::program()
{
    const char* named = getenv("STILLIMAGE_PROGRAM");
    return named != nullptr && named[0] != '\0' ? named : "stillimage";
}

int started_worker::start(const std::string& picture)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return errno;
    }
    words_ = owned_fd(ends[0]);
    const owned_fd writing(ends[1]);
    fcntl(words_.get(), F_SETFL, O_NONBLOCK);
    said_.clear();
    ended_ = false;
    return spawn_detached(program(), picture, writing.get());
}

void started_worker::listen(int wait_ms)
{
    pollfd waiting = {words_.get(), POLLIN, 0};
    if (ended_ || poll(&waiting, 1, wait_ms) <= 0) {
        return;
    }
    char piece[4096];
    ssize_t got = 0;
    while ((got = read(words_.get(), piece, sizeof piece)) > 0) {
        said_.append(piece, static_cast<size_t>(got));
        if (said_.size() > most_said) {
            said_.erase(0, said_.size() - most_said);
        }
    }
    ended_ = got == 0;
}

bool started_worker::gave_way() const
{
    return ended_ && said_.find("already served by process") != std::string::npos;
}

// The last line names the step that failed, the one before it mostly says why. A worker that does not
// know the type of the file says so in words of its own, or nothing after its settings.
std::string started_worker::last_words() const
{
    constexpr std::string_view last_setting = "   Sock: ";
    constexpr std::string_view unknown_type = "FIXME: Unknown file type id";
    std::string_view rest = said_;
    const std::string_view last = take_last_line(rest);
    if (last.empty()) {
        return "it said nothing";
    }
    if (last.starts_with(last_setting) || last == unknown_type) {
        return "it is no picture of a known type";
    }
    const std::string_view reason = take_last_line(rest);
    const bool beside = !reason.empty() && !reason.starts_with(last_setting) && reason[0] != '*';
    return (beside ? std::string(reason) + "; " : std::string()) + std::string(last);
}
