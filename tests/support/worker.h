// The real program under test: `stillimage` in its own folders, with standard error in a file.
// Waits are bounded. The process does not outlive the object.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/temporary_folder.h"

// The folders of the workers of one test: runtime, state and temporary folders.
class worker_home {
public:
    worker_home();

    const temporary_folder& folder() const { return folder_; }
    std::string path(std::string_view name) const { return folder_.path(name); }
    std::vector<std::string> environment() const; // NAME=value

    // Paths of all sockets below the folder. Empty once every worker has ended cleanly.
    std::vector<std::string> sockets() const;

private:
    temporary_folder folder_;
};

// The address space limit of a worker in bytes; 0, no limit, under the address sanitizer, which
// takes terabytes of address space.
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
        bool empty_arguments = false; // argc is 0: not even the program's name
        bool stderr_closed = false;   // started with descriptor 2 closed
        std::string working_folder = {};
        int standard_fd = -1;       // becomes descriptors 0, 1 and 2
        uint64_t address_space = 0; // limit in bytes, see address_space_of; 0: none
        std::string group = {};     // members_file() of its control group
        unsigned descriptors = 0;   // maximum number of descriptors; 0: as for the test
    };

    worker(const worker_home& home, const setting& how);
    // Serves `picture` on socket() with these additional switches and environment variables.
    worker(const worker_home& home, const std::string& picture, std::vector<std::string> more = {},
           std::vector<std::string> more_environment = {});
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;
    ~worker(); // kills the process when it still runs

    // A switch for tests that read the memory maps or the open descriptors of the process. The
    // kernel shows those of a confined worker to root only.
    inline static const std::vector<std::string> may_be_inspected = {"--core-files"};

    pid_t pid() const { return pid_; }
    const std::string& socket() const { return socket_; }

    bool is_running() const;
    bool wait_ready(int timeout_ms = 30'000) const; // connects as a client
    bool wait_printed(std::string_view text, int timeout_ms = 30'000) const;
    bool wait_stopped(int timeout_ms = 30'000) const; // by a signal

    // The exit status, or minus the signal that ended it; no_end when it is still running.
    int wait_end(int timeout_ms = 30'000);
    static constexpr int no_end = -1000;

    void send(int signal) const;
    std::string printed() const; // standard error so far

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

struct ended_worker {
    int status;
    std::string printed; // standard error
};
// Runs a worker until it ends.
ended_worker run_worker(const worker_home& home, const worker::setting& how);

// A running stillimage-client. The destructor kills it when it still runs.
class started_client {
public:
    started_client(const worker_home& home, const std::vector<std::string>& arguments);
    started_client(const started_client&) = delete;
    started_client& operator=(const started_client&) = delete;
    ~started_client();

    std::string printed() const;           // standard output so far
    std::string messages() const;          // standard error so far
    int wait_end(int timeout_ms = 60'000); // as worker::wait_end

private:
    pid_t pid_ = -1;
    int end_ = worker::no_end;
    std::string out_path_;
};

// Runs stillimage-client until it ends and returns its exit status. `out` receives its standard
// output.
int run_client(const worker_home& home, const std::vector<std::string>& arguments,
               std::string* out = nullptr);

// Polls `condition` until it holds or the time is over; returns its last value.
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
