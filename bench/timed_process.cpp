#include "bench/timed_process.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int status_channel = 3; // the descriptor's number in the worker
constexpr int patience_ms = 120'000;

[[noreturn]] void give_up(const std::string& what)
{
    fprintf(stderr, "timed_process: %s\n", what.c_str());
    exit(EXIT_FAILURE);
}

double seconds_of(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double processor_seconds(pid_t pid)
{
    clockid_t clock = {};
    return clock_getcpuclockid(pid, &clock) == 0 ? seconds_of(clock) : 0;
}

struct pipe_ends {
    int read;
    int write;
};

pipe_ends open_pipe()
{
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        give_up("no pipe");
    }
    // Away from the descriptor numbers that the child uses.
    const pipe_ends moved = {fcntl(ends[0], F_DUPFD_CLOEXEC, 10),
                             fcntl(ends[1], F_DUPFD_CLOEXEC, 10)};
    close(ends[0]);
    close(ends[1]);
    return moved;
}

struct redirection {
    int from;
    int to;
};

pid_t start(const command& words, const std::vector<redirection>& redirections)
{
    std::vector<char*> pointers;
    for (const std::string& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const redirection& one : redirections) {
        posix_spawn_file_actions_adddup2(&actions, one.from, one.to);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) {
        give_up("cannot start " + words[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

double to_seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// Adds up the private pages of private mappings. The kernel's own totals count the frame buffer as
// private while no other process has mapped it, so each mapping is examined.
double private_kilobytes(pid_t pid)
{
    std::ifstream maps("/proc/" + std::to_string(pid) + "/smaps");
    double total = 0;
    bool counts = false;
    for (std::string line; std::getline(maps, line);) {
        std::array<char, 5> rights = {};
        long kilobytes = 0;
        if (sscanf(line.c_str(), "%*x-%*x %4s", rights.data()) == 1) {
            counts = rights[3] == 'p';
        } else if (sscanf(line.c_str(), "Private_Clean: %ld", &kilobytes) == 1 ||
                   sscanf(line.c_str(), "Private_Dirty: %ld", &kilobytes) == 1) {
            total += counts ? static_cast<double>(kilobytes) : 0;
        }
    }
    return total;
}

// Appends what can be read from a pipe. False at its end.
bool take(int pipe, std::string* text)
{
    std::array<char, 4096> piece;
    const ssize_t size = read(pipe, piece.data(), piece.size());
    if (size > 0) {
        text->append(piece.data(), static_cast<size_t>(size));
    }
    return size > 0;
}

void end_worker(pid_t pid, int messages)
{
    kill(pid, SIGTERM);
    std::string rest;
    while (take(messages, &rest)) {
    }
    waitpid(pid, nullptr, 0);
}

// How many pyramids were begun: the number of messages for the largest level.
size_t pyramids_begun(const std::string& printed)
{
    const std::string label = "Generating mipmap ";
    const size_t first = printed.find(label);
    const size_t end = first == std::string::npos ? first : printed.find('\n', first);
    if (end == std::string::npos) {
        return 0;
    }
    const std::string largest = printed.substr(first, end - first + 1);
    size_t count = 0;
    for (size_t at = first; at != std::string::npos; at = printed.find(largest, at + 1)) {
        ++count;
    }
    return count;
}

// Reads both channels until the ready message. A pyramid begins with its first message. If a
// provisional picture was served, the last pyramid counts.
void follow_worker(pid_t pid, int status, int messages, double begin, timed_run* run)
{
    std::string reports;
    std::string printed;
    size_t pyramids = 0;
    double pyramid_wall = 0;
    double pyramid_processor = 0;
    while (reports.find("\"ready\": 1,") == std::string::npos) {
        std::array<pollfd, 2> channels = {{{status, POLLIN, 0}, {messages, POLLIN, 0}}};
        if (poll(channels.data(), channels.size(), patience_ms) <= 0 ||
            (channels[0].revents != 0 && !take(status, &reports))) {
            give_up("the worker did not become ready; its messages:\n" + printed);
        }
        if ((channels[1].revents & POLLIN) != 0) {
            take(messages, &printed);
            const bool was_provisional = reports.find("\"ready\": -1,") != std::string::npos;
            if (pyramids_begun(printed) > pyramids && (pyramids == 0 || was_provisional)) {
                pyramids = pyramids_begun(printed);
                pyramid_wall = seconds_of(CLOCK_MONOTONIC);
                pyramid_processor = processor_seconds(pid);
            }
        }
    }
    const double end = seconds_of(CLOCK_MONOTONIC);
    run->wall = end - begin;
    run->processor = processor_seconds(pid);
    if (pyramids != 0) {
        run->pyramid_wall = end - pyramid_wall;
        run->pyramid_processor = run->processor - pyramid_processor;
    }
}

} // namespace

timed_run run_floor(const command& words)
{
    const pipe_ends output = open_pipe();
    timed_run run;
    const double begin = seconds_of(CLOCK_MONOTONIC);
    const pid_t pid = start(words, {{output.write, STDOUT_FILENO}});
    int status = 0;
    rusage usage = {};
    wait4(pid, &status, 0, &usage);
    run.wall = seconds_of(CLOCK_MONOTONIC) - begin;
    run.processor = to_seconds(usage.ru_utime) + to_seconds(usage.ru_stime);
    close(output.write);
    std::string printed;
    take(output.read, &printed);
    close(output.read);
    if (status != 0) {
        give_up(words[0] + " failed");
    }
    run.private_kilobytes = atof(printed.c_str());
    return run;
}

timed_run run_worker_to_ready(command words)
{
    words.insert(words.end(), {"--status-fd", std::to_string(status_channel)});
    const pipe_ends status = open_pipe();
    const pipe_ends messages = open_pipe();
    timed_run run;
    const double begin = seconds_of(CLOCK_MONOTONIC);
    const pid_t pid =
        start(words, {{status.write, status_channel}, {messages.write, STDERR_FILENO}});
    close(status.write);
    close(messages.write);
    follow_worker(pid, status.read, messages.read, begin, &run);
    run.private_kilobytes = private_kilobytes(pid);
    end_worker(pid, messages.read);
    close(status.read);
    close(messages.read);
    return run;
}
