// Compares the cost of a frame request with the minimal cost of any server on this kind of socket,
// and measures the cost of an idle worker.
//
//   frame_request_bench PROGRAM           starts PROGRAM on a small generated picture
//   frame_request_bench --at SOCKET PID   measures a running worker
//
// Worker and floor alternate for several rounds; each figure is the median of the rounds' ratios.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/packet_echo.h"
#include "tests/support/packet_client.h"
#include "tests/support/png_writer.h"
#include "tests/support/temporary_folder.h"

using namespace comm_protocol;

namespace {

constexpr int rounds = 7;
constexpr int requests_per_round = 20'000;
constexpr int warm_up_requests = 2'000;
constexpr int crowd_size = 100;
constexpr double crowd_seconds = 1.0;
constexpr double idle_seconds = 3.0;
constexpr size_t frame_packet_size = 104;

[[noreturn]] void give_up(const char* why)
{
    fprintf(stderr, "frame_request_bench: %s\n", why);
    exit(EXIT_FAILURE);
}

double seconds_of(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double now_seconds()
{
    return seconds_of(CLOCK_MONOTONIC);
}

// Processor time of another process, user and system.
double processor_seconds(pid_t pid)
{
    clockid_t clock = {};
    return clock_getcpuclockid(pid, &clock) == 0 ? seconds_of(clock) : 0;
}

// The number of times that the process went to sleep voluntarily.
long wake_ups(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") {
            long count = 0;
            status >> count;
            return count;
        }
    }
    return 0;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// --- the two servers -----------------------------------------------------------------------------

struct server {
    std::string path;
    pid_t pid;
    bool is_worker; // speaks the protocol; the floor echoes anything
};

pid_t start(const std::function<void()>& work)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(EXIT_FAILURE);
    }
    return pid;
}

std::string small_png()
{
    png_spec picture;
    picture.width = 64;
    picture.height = 64;
    picture.rows.assign(size_t{64} * (1 + 64 * 3), 0);
    const std::vector<unsigned char> file = write_png(picture);
    return {file.begin(), file.end()};
}

server start_floor(const std::string& path)
{
    return {path, start([&path] { run_packet_echo(path, frame_packet_size); }), false};
}

server start_worker(const char* program, const temporary_folder& folder)
{
    const std::string picture = folder.write("picture.png", small_png());
    const std::string socket = folder.path("worker.sock");
    const std::string metadata = folder.path("metadata");
    const pid_t pid = start([&] {
        if (freopen("/dev/null", "w", stderr) == nullptr) {
            return;
        }
        execl(program, program, "--file", picture.c_str(), "--sock", socket.c_str(), "--metadir",
              metadata.c_str(), "--no-autoshutdown", static_cast<char*>(nullptr));
    });
    return {socket, pid, true};
}

received_packet wait_for_packet(const packet_client& client)
{
    pollfd readable = {client.fd(), POLLIN, 0};
    poll(&readable, 1, 10'000);
    auto packet = client.receive();
    if (!packet.has_value()) {
        give_up("no answer");
    }
    return std::move(*packet);
}

packet_client connect_to(const server& to)
{
    for (int i = 0; i < 1000; ++i) {
        packet_client client(to.path);
        if (client.connected()) {
            if (to.is_worker) {
                client.send(encode(1, hello()));
                wait_for_packet(client);
                client.send(encode(2, get_frame{0, get_frame_wait}));
                const auto first = wait_for_packet(client);
                client.send(encode(3, release_frame{first.as<frame>().reference}));
                wait_for_packet(client);
            }
            return client;
        }
        usleep(10'000);
    }
    give_up("cannot connect");
}

// --- one client ----------------------------------------------------------------------------------

size_t ask_blocking(int socket, const packet_bytes& request, unsigned char* answer, size_t capacity)
{
    if (send(socket, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        give_up("cannot send");
    }
    const ssize_t size = recv(socket, answer, capacity, 0);
    if (size <= 0) {
        give_up("no answer");
    }
    return static_cast<size_t>(size);
}

struct latency {
    double p50;
    double p99;
};

// Measures GET_FRAME requests. The frame is released before the next request, outside the
// measurement.
latency measure_latency(const server& to)
{
    const packet_client client = connect_to(to);
    fcntl(client.fd(), F_SETFL, 0); // blocking, to minimise the cost of the client itself
    const packet_bytes request = encode(5, get_frame{0, 0});
    std::array<unsigned char, max_packet_size> answer;
    std::vector<double> times;
    times.reserve(requests_per_round);
    for (int i = 0; i < warm_up_requests + requests_per_round; ++i) {
        const double before = now_seconds();
        const size_t size = ask_blocking(client.fd(), request, answer.data(), answer.size());
        if (i >= warm_up_requests) {
            times.push_back(now_seconds() - before);
        }
        frame got;
        if (size != frame_packet_size ||
            !decode(answer.data() + packet_header_size, size - packet_header_size, &got)) {
            give_up("not a frame");
        }
        ask_blocking(client.fd(), encode(6, release_frame{got.reference}), answer.data(),
                     answer.size());
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

void report_latency(const server& worker, const server& floor)
{
    std::vector<double> p50;
    std::vector<double> p99;
    latency last_worker = {};
    latency last_floor = {};
    for (int round = 0; round < rounds; ++round) {
        last_floor = measure_latency(floor);
        last_worker = measure_latency(worker);
        p50.push_back(last_worker.p50 / last_floor.p50);
        p99.push_back(last_worker.p99 / last_floor.p99);
    }
    printf("one client, frame request: p50 %.1f us (floor %.1f), p99 %.1f us (floor %.1f)\n",
           last_worker.p50 * 1e6, last_floor.p50 * 1e6, last_worker.p99 * 1e6,
           last_floor.p99 * 1e6);
    printf("  against the floor: p50 %.2f (goal 1.2), p99 %.2f (goal 1.5)\n", median(p50),
           median(p99));
}

// --- a hundred clients ---------------------------------------------------------------------------

struct load {
    double requests_a_second;
    double processor_us_a_request;
};

// Every client always has one pending request. Each FRAME is followed by its release, and both
// count, so the floor receives as many messages.
load measure_load(const server& to)
{
    std::vector<packet_client> clients;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < crowd_size; ++i) {
        clients.push_back(connect_to(to));
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u32 = static_cast<uint32_t>(i);
        epoll_ctl(epoll, EPOLL_CTL_ADD, clients.back().fd(), &event);
    }
    const packet_bytes request = encode(5, get_frame{0, 0});
    for (const packet_client& client : clients) {
        client.send(request);
    }
    std::array<epoll_event, crowd_size> events;
    std::array<unsigned char, max_packet_size> answer;
    const double processor_before = processor_seconds(to.pid);
    const double before = now_seconds();
    long answered = 0;
    while (now_seconds() - before < crowd_seconds) {
        const int ready = epoll_wait(epoll, events.data(), crowd_size, 1000);
        for (int i = 0; i < ready; ++i) {
            const packet_client& client = clients[events[static_cast<size_t>(i)].data.u32];
            const ssize_t size = recv(client.fd(), answer.data(), answer.size(), 0);
            frame got;
            const bool is_frame = size == static_cast<ssize_t>(frame_packet_size) &&
                                  decode(answer.data() + packet_header_size,
                                         static_cast<size_t>(size) - packet_header_size, &got);
            client.send(is_frame && to.is_worker ? encode(6, release_frame{got.reference})
                                                 : request);
            ++answered;
        }
    }
    const double took = now_seconds() - before;
    const double processor = processor_seconds(to.pid) - processor_before;
    close(epoll);
    return {static_cast<double>(answered) / took, processor / static_cast<double>(answered) * 1e6};
}

void report_load(const server& worker, const server& floor)
{
    std::vector<double> rate;
    std::vector<double> processor;
    double worker_rate = 0;
    double floor_rate = 0;
    for (int round = 0; round < rounds; ++round) {
        floor_rate = measure_load(floor).requests_a_second;
        const load of_worker = measure_load(worker);
        worker_rate = of_worker.requests_a_second;
        rate.push_back(worker_rate / floor_rate);
        processor.push_back(of_worker.processor_us_a_request);
    }
    printf("%d clients in a closed loop: %.0f requests/s (floor %.0f)\n", crowd_size, worker_rate,
           floor_rate);
    printf("  against the floor: %.2f (goal 0.5); worker's processor time a request: %.2f us "
           "(goal 4)\n",
           median(rate), median(processor));
}

// --- idle ----------------------------------------------------------------------------------------

void report_idle(const server& worker, int connected)
{
    std::vector<packet_client> clients;
    for (int i = 0; i < connected; ++i) {
        clients.push_back(connect_to(worker));
    }
    usleep(200'000);
    const long wake_ups_before = wake_ups(worker.pid);
    const double processor_before = processor_seconds(worker.pid);
    const double before = now_seconds();
    usleep(static_cast<useconds_t>(idle_seconds * 1e6));
    const double took = now_seconds() - before;
    printf("idle with %d clients: %.1f wake-ups/s (goal 101), %.3f %% of a core (goal 0.35)\n",
           connected, static_cast<double>(wake_ups(worker.pid) - wake_ups_before) / took,
           (processor_seconds(worker.pid) - processor_before) / took * 100);
}

void end(const server& ended)
{
    kill(ended.pid, SIGTERM);
    waitpid(ended.pid, nullptr, 0);
}

} // namespace

int main(int argc, char** argv)
{
    const temporary_folder folder;
    const bool runs_already = argc == 4 && strcmp(argv[1], "--at") == 0;
    if (!runs_already && argc != 2) {
        give_up("usage: frame_request_bench PROGRAM | --at SOCKET PID");
    }
    const server floor = start_floor(folder.path("floor.sock"));
    const server worker =
        runs_already ? server{argv[2], atoi(argv[3]), true} : start_worker(argv[1], folder);
    report_latency(worker, floor);
    report_load(worker, floor);
    for (const int connected : {0, 1, crowd_size}) {
        report_idle(worker, connected);
    }
    end(floor);
    if (!runs_already) {
        end(worker);
    }
    return EXIT_SUCCESS;
}
