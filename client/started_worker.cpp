// An intermediate process starts the worker and exits at once, so that the worker is not a child of
// the caller. Its end raises no signal in the caller, and only a wait for its process id reports
// it, so the caller's handling of its own children is not disturbed.
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

constexpr size_t max_output = 16384; // bytes of the worker's output that are kept

// The parameters of the worker's start. Prepared in the caller, since the intermediate process must
// not allocate memory.
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

// A fork whose child raises no signal when it ends. All arguments are 0 (no memory is shared), so
// their order, which differs between architectures, does not matter.
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
    const pid_t intermediate = fork_quietly();
    if (intermediate == 0) {
        _exit(plan.run(program.c_str(), arguments.data()));
    }
    return intermediate > 0 ? exit_status_of(intermediate) : errno;
}

std::string_view without_line_end(std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

// Removes the last line from `text` and returns it.
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

bool read_portion(int fd, std::string* output)
{
    constexpr int max_pieces = 16;
    char piece[4096];
    ssize_t got = 1;
    for (int pieces = 0; pieces < max_pieces && got > 0; ++pieces) {
        got = read(fd, piece, sizeof piece);
        output->append(piece, got > 0 ? static_cast<size_t>(got) : 0);
        output->erase(0, output->size() - std::min(output->size(), max_output));
    }
    return got != 0;
}

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
    pipe_ = unique_fd(ends[0]);
    const unique_fd writing(ends[1]);
    fcntl(pipe_.get(), F_SETFL, O_NONBLOCK);
    output_.clear();
    ended_ = false;
    return spawn_detached(program(), picture, writing.get());
}

void started_worker::read_output(int wait_ms)
{
    pollfd waiting = {pipe_.get(), POLLIN, 0};
    if (ended_ || poll(&waiting, 1, wait_ms) <= 0) {
        return;
    }
    ended_ = !read_portion(pipe_.get(), &output_);
}

bool started_worker::other_worker_serves() const
{
    return ended_ && output_.find("already served by process") != std::string::npos;
}

// The last line names the step that failed, and the line before it usually has the reason. For a
// file of an unknown type the output ends in a line of its own, or with the worker's settings.
std::string started_worker::reason() const
{
    constexpr std::string_view last_setting = "   Sock: ";
    constexpr std::string_view unknown_type = "FIXME: Unknown file type id";
    std::string_view rest = output_;
    const std::string_view last = take_last_line(rest);
    if (last.empty()) {
        return "it said nothing";
    }
    if (last.starts_with(last_setting) || last == unknown_type) {
        return "it is no picture of a known type";
    }
    const std::string_view before = take_last_line(rest);
    const bool has_reason =
        !before.empty() && !before.starts_with(last_setting) && before[0] != '*';
    return (has_reason ? std::string(before) + "; " : std::string()) + std::string(last);
}
