// Measures how long a client waits for an answer while the worker decodes a picture. Starts a
// worker for each picture, and pings it from one client without a pause until the picture is ready.
// The longest wait is the largest gap between two rounds of socket service.
//
//   pump_gap PROGRAM PICTURE...
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "client/stillimage_client.h"
#include "tests/support/temporary_folder.h"

namespace {

constexpr int patience_ms = 120'000;

pid_t start_worker(const char* program, const char* picture, const std::string& socket)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const char* words[] = {
        program, "--file", picture, "--sock", socket.c_str(), "--no-autoshutdown", nullptr};
    pid_t pid = -1;
    const int failure =
        posix_spawn(&pid, program, &actions, nullptr, const_cast<char* const*>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failure == 0 ? pid : -1;
}

struct waits {
    double longest = 0; // ms
    unsigned long answers = 0;
    double until_ready = 0; // ms from the first answer on
};

bool is_ready(stillimage_client* client)
{
    return stillimage_wait_ready(client, 0, 0) == STILLIMAGE_OK;
}

waits ping_until_ready(stillimage_client* client)
{
    using clock = std::chrono::steady_clock;
    using milliseconds = std::chrono::duration<double, std::milli>;
    waits seen;
    const auto begin = clock::now();
    for (bool ready = false; !ready;) {
        const auto asked = clock::now();
        ready = is_ready(client);
        if (stillimage_ping(client, patience_ms) != STILLIMAGE_OK) {
            break;
        }
        const double waited = milliseconds(clock::now() - asked).count();
        seen.longest = waited > seen.longest ? waited : seen.longest;
        ++seen.answers;
    }
    seen.until_ready = milliseconds(clock::now() - begin).count();
    return seen;
}

void measure(const char* program, const char* picture, const std::string& socket)
{
    const pid_t pid = start_worker(program, picture, socket);
    stillimage_client* client = nullptr;
    if (pid > 0 && stillimage_connect(socket.c_str(), patience_ms, &client) == STILLIMAGE_OK) {
        const waits seen = ping_until_ready(client);
        printf("%-60s longest %8.2f ms, %lu answers in %.0f ms\n", picture, seen.longest,
               seen.answers, seen.until_ready);
        stillimage_quit(client, patience_ms);
    } else {
        printf("%-60s %s\n", picture, stillimage_last_error(client));
    }
    stillimage_close(client);
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "pump_gap PROGRAM PICTURE...\n");
        return 2;
    }
    const temporary_folder folder;
    for (const char* name : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME"}) {
        mkdir(folder.path(name).c_str(), 0700);
        setenv(name, folder.path(name).c_str(), 1);
    }
    for (int i = 2; i < argc; ++i) {
        measure(argv[1], argv[i], folder.path("s"));
    }
    return EXIT_SUCCESS;
}
