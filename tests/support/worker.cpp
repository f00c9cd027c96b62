#include "tests/support/worker.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "client/stillimage_client.h"
#include "tests/support/file_contents.h"
#include "tests/support/signals.h"

namespace {

std::string next_name(const char* stem)
{
    static std::atomic<int> count{0};
    return std::string(stem) + std::to_string(++count);
}

std::vector<char*> pointers_to(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

void redirect(const std::string& path, int to)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(fd, to);
    close(fd);
}

// Adds the variables whose names `environment` does not contain.
void add_missing(const std::vector<std::string>& more, std::vector<std::string>* environment)
{
    for (const std::string& text : more) {
        const std::string name = text.substr(0, text.find('=') + 1);
        const auto same = [&name](const std::string& own) { return own.starts_with(name); };
        if (std::none_of(environment->begin(), environment->end(), same)) {
            environment->push_back(text);
        }
    }
}

// The environment of the tests, with the folders of `home` instead of the user's own.
std::vector<std::string> child_environment(const worker_home& home,
                                           const std::vector<std::string>& more)
{
    std::vector<std::string> inherited;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with("NOTIFY_SOCKET=")) {
            inherited.emplace_back(*entry);
        }
    }
    std::vector<std::string> result = more;
    add_missing(home.environment(), &result);
    add_missing(inherited, &result);
    return result;
}

void use_as_standard_descriptors(int fd)
{
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(fd, standard);
    }
}

void limit_descriptors(unsigned number)
{
    const rlimit limit = {number, number};
    setrlimit(RLIMIT_NOFILE, &limit);
}

void limit_address_space(uint64_t bytes)
{
    const rlimit limit = {bytes, bytes};
    setrlimit(RLIMIT_AS, &limit);
}

bool join_group(const std::string& members_file)
{
    const int fd = open(members_file.c_str(), O_WRONLY | O_CLOEXEC);
    const std::string number = std::to_string(getpid());
    return fd >= 0 && write(fd, number.data(), number.size()) > 0;
}

[[noreturn]] void become_program(const char* program, std::vector<std::string> arguments,
                                 std::vector<std::string> environment)
{
    execve(program, pointers_to(arguments).data(), pointers_to(environment).data());
    _exit(127);
}

int wait_for(pid_t pid, int timeout_ms)
{
    int status = 0;
    const bool ended =
        eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout_ms);
    if (!ended) {
        return worker::no_end;
    }
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

void pause_ms(int milliseconds)
{
    const timespec pause = {milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
    nanosleep(&pause, nullptr);
}

// --- home ---------------------------------------------------------------------------------------

worker_home::worker_home()
{
    for (const char* name : {"run", "state", "tmp"}) {
        std::filesystem::create_directory(path(name));
        std::filesystem::permissions(path(name), std::filesystem::perms::owner_all);
    }
}

std::vector<std::string> worker_home::environment() const
{
    return {"HOME=" + folder_.path(), "XDG_RUNTIME_DIR=" + path("run"),
            "XDG_STATE_HOME=" + path("state"), "TMPDIR=" + path("tmp")};
}

std::vector<std::string> worker_home::sockets() const
{
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path())) {
        if (entry.is_socket()) {
            found.push_back(entry.path());
        }
    }
    return found;
}

// --- worker -------------------------------------------------------------------------------------

worker::worker(const worker_home& home, const setting& how)
{
    start(home, how);
}

worker::worker(const worker_home& home, const std::string& picture, std::vector<std::string> more,
               std::vector<std::string> more_environment)
{
    socket_ = home.path(next_name("socket"));
    setting how = {{"--file", picture, "--sock", socket_, "--no-autoshutdown"},
                   std::move(more_environment)};
    how.arguments.insert(how.arguments.end(), more.begin(), more.end());
    start(home, how);
}

void worker::start(const worker_home& home, const setting& how)
{
    stderr_path_ = home.path(next_name("stderr"));
    std::vector<std::string> arguments;
    if (!how.empty_arguments) {
        arguments.emplace_back("stillimage");
        arguments.insert(arguments.end(), how.arguments.begin(), how.arguments.end());
    }
    const auto environment = child_environment(home, how.more_environment);
    pid_ = fork();
    if (pid_ != 0) {
        return;
    }
    redirect(stderr_path_, STDERR_FILENO);
    if (how.standard_fd >= 0) {
        use_as_standard_descriptors(how.standard_fd);
    }
    if (how.stderr_closed) {
        close(STDERR_FILENO);
    }
    if (how.address_space != 0) {
        limit_address_space(how.address_space);
    }
    if (!how.group.empty() && !join_group(how.group)) {
        _exit(125);
    }
    if (!how.working_folder.empty() && chdir(how.working_folder.c_str()) != 0) {
        _exit(126);
    }
    if (how.descriptors != 0) {
        limit_descriptors(how.descriptors);
    }
    become_program(STILLIMAGE_PROGRAM, arguments, environment);
}

worker::~worker()
{
    if (pid_ > 0 && end_ == no_end) {
        send_signal(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool worker::is_running() const
{
    siginfo_t ended = {};
    return end_ == no_end &&
           waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

bool worker::wait_ready(int timeout_ms) const
{
    // The library waits only a few seconds for a worker that is starting, so try several times.
    constexpr int connect_ms = 5'000;
    bool connected = false;
    bool ready = false;
    for (int waited = 0; waited < timeout_ms && !connected && is_running(); waited += connect_ms) {
        stillimage_client* client = nullptr;
        connected = stillimage_connect(socket_.c_str(), timeout_ms, &client) == STILLIMAGE_OK;
        ready = connected && stillimage_wait_ready(client, 0, timeout_ms) == STILLIMAGE_OK;
        stillimage_close(client);
    }
    return ready;
}

bool worker::wait_printed(std::string_view text, int timeout_ms) const
{
    return eventually([&] { return printed().find(text) != std::string::npos; }, timeout_ms);
}

bool worker::wait_stopped(int timeout_ms) const
{
    return eventually(
        [this] {
            siginfo_t stopped = {};
            return waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WNOHANG | WNOWAIT) ==
                       0 &&
                   stopped.si_pid == pid_;
        },
        timeout_ms);
}

int worker::wait_end(int timeout_ms)
{
    if (end_ == no_end) {
        end_ = wait_for(pid_, timeout_ms);
    }
    return end_;
}

void worker::send(int signal) const
{
    send_signal(pid_, signal);
}

std::string worker::printed() const
{
    return read_text(stderr_path_);
}

size_t worker::open_descriptors() const
{
    const auto folder =
        std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

size_t worker::resident_kilobytes() const
{
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("RssAnon:")) {
            return std::stoul(line.substr(8));
        }
    }
    return 0;
}

uint64_t worker::processor_time_us() const
{
    std::ifstream schedule("/proc/" + std::to_string(pid_) + "/schedstat");
    uint64_t nanoseconds = 0;
    schedule >> nanoseconds;
    return nanoseconds / 1000;
}

// --- runs to the end ----------------------------------------------------------------------------

ended_worker run_worker(const worker_home& home, const worker::setting& how)
{
    constexpr int hang_limit_ms = 100'000;
    worker started(home, how);
    const int status = started.wait_end(hang_limit_ms);
    return {status, started.printed()};
}

started_client::started_client(const worker_home& home, const std::vector<std::string>& arguments)
    : out_path_(home.path(next_name("out")))
{
    std::vector<std::string> words = {"stillimage-client"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const auto environment = child_environment(home, {});
    pid_ = fork();
    if (pid_ == 0) {
        redirect(out_path_, STDOUT_FILENO);
        redirect(out_path_ + ".err", STDERR_FILENO);
        become_program(STILLIMAGE_CLIENT_PROGRAM, words, environment);
    }
}

started_client::~started_client()
{
    if (pid_ > 0 && end_ == worker::no_end) {
        send_signal(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::string started_client::printed() const
{
    return read_text(out_path_);
}

std::string started_client::messages() const
{
    return read_text(out_path_ + ".err");
}

int started_client::wait_end(int timeout_ms)
{
    if (end_ == worker::no_end) {
        end_ = wait_for(pid_, timeout_ms);
    }
    return end_;
}

int run_client(const worker_home& home, const std::vector<std::string>& arguments, std::string* out)
{
    started_client client(home, arguments);
    const int status = client.wait_end();
    if (out != nullptr) {
        *out = client.printed();
    }
    return status;
}
