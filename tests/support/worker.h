// The real program under test: `stillimage` in folders of its own, with its standard error in a
// file. Waits are bounded; nothing of a worker outlives the object.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/temporary_folder.h"

// Where workers of one test keep their state: runtime, state and temporary folders.
class worker_home {
public:
    worker_home();

    const temporary_folder& folder() const { return folder_; }
    std::string path(std::string_view name) const { return folder_.path(name); }
    std::vector<std::string> environment() const; // NAME=value

    // What is left in the runtime folders: sockets, locks and members of the buffer domain that are
    // held by a living process or were forgotten. Empty once every worker has gone in order.
    std::vector<std::string> sockets() const;

private:
    temporary_folder folder_;
};

// A worker's limit. None under the address sanitizer, which takes terabytes of address space.
constexpr uint64_t address_space_of([[maybe_unused]] uint64_t mebibytes)
{
#ifdef __SANITIZE_ADDRESS__
    return 0;
#else
    return mebibytes << 20;
#endif
}

class worker {
public:
    struct setting {
        std::vector<std::string> arguments;
        std::vector<std::string> more_environment = {};
        bool empty_arguments = false; // an argument vector without even the program's name
        bool stderr_closed = false;   // started with descriptor 2 closed
        int status_fd = -1;           // inherited under its number
        std::string working_folder = {};
        int standard_fd = -1;       // becomes descriptors 0, 1 and 2: a terminal, or a broken pipe
        uint64_t address_space = 0; // limit in bytes, see address_space_of; 0: none
        std::string group = {};     // members_file() of the control group that it runs in
        unsigned descriptors = 0;   // limit of their number; 0: that of the test
    };

    worker(const worker_home& home, const setting& how);
    // Serves `picture` on `path()` with these further switches.
    worker(const worker_home& home, const std::string& picture, std::vector<std::string> more = {});
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;
    ~worker(); // kills it when it still runs

    pid_t pid() const { return pid_; }
    const std::string& socket() const { return socket_; }

    bool is_running() const;
    bool wait_ready(int timeout_ms = 30'000) const; // by its socket
    bool wait_printed(std::string_view text, int timeout_ms = 30'000) const;
    bool wait_stopped(int timeout_ms = 30'000) const; // by a signal

    // The exit status, or minus the signal that ended it; no_end when it still runs.
    int wait_end(int timeout_ms = 30'000);
    static constexpr int no_end = -1000;

    void send(int signal) const;
    std::string told() const; // standard error so far

    size_t open_descriptors() const;
    size_t resident_kilobytes() const;
    uint64_t processor_time_us() const; // spent so far

private:
    void start(const worker_home& home, const setting& how);

    pid_t pid_ = -1;
    int end_ = no_end;
    std::string socket_;
    std::string stderr_path_;
};

// Runs the worker to its end on these switches.
struct ended_worker {
    int status;
    std::string told;
};
ended_worker run_worker(const worker_home& home, const worker::setting& how);

// stillimage-client at work. Killed with the object when it still runs.
class started_client {
public:
    started_client(const worker_home& home, const std::vector<std::string>& arguments);
    started_client(const started_client&) = delete;
    started_client& operator=(const started_client&) = delete;
    ~started_client();

    std::string printed() const;           // standard output so far
    int wait_end(int timeout_ms = 60'000); // as worker::wait_end

private:
    pid_t pid_ = -1;
    int end_ = worker::no_end;
    std::string out_path_;
};

// Runs stillimage-client to its end. `out` receives its standard output.
int run_client(const worker_home& home, const std::vector<std::string>& arguments,
               std::string* out = nullptr);

// Calls `condition` until it holds or the time is over.
template <typename Condition>
bool eventually(Condition condition, int timeout_ms = 30'000);

void pause_ms(int milliseconds);

template <typename Condition>
bool eventually(Condition condition, int timeout_ms)
{
    constexpr int step_ms = 5;
    for (int waited = 0; waited < timeout_ms; waited += step_ms) {
        if (condition()) {
            return true;
        }
        pause_ms(step_ms);
    }
    return condition();
}
