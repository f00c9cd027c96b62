// What one client notices of another that burdens the worker: the time of its frame requests beside
// each of twelve hostile clients, and the worker's private memory before and after.
//
//   hostile_clients_bench [NAME...]   with names, only hostile clients whose name contains one
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>
#include <vector>

#include "client/stillimage_client.h"
#include "tests/support/hostile_clients.h"
#include "tests/support/worker.h"

namespace {

constexpr double seconds_each = 4;
constexpr double seconds_of_warm_up = 0.5;
constexpr double gap_seconds = 0.002; // between two requests
constexpr size_t kibibytes_more = 4096;
constexpr int patience_ms = 10'000; // for the memory to come back

struct client_closer {
    void operator()(stillimage_client* client) const { stillimage_close(client); }
};
using open_client = std::unique_ptr<stillimage_client, client_closer>;

double now_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void sleep_seconds(double seconds)
{
    const timespec duration = {0, static_cast<long>(seconds * 1e9)};
    nanosleep(&duration, nullptr);
}

struct observed {
    std::vector<double> seconds; // of each request
    int errors = 0;
};

// Requests a frame and releases it; the release is not measured.
void request_frame(stillimage_client* client, observed* seen)
{
    stillimage_frame* frame = nullptr;
    const double before = now_seconds();
    const int result = stillimage_get_frame(client, 0, 0, 0, 10'000, &frame);
    seen->seconds.push_back(now_seconds() - before);
    if (result != STILLIMAGE_OK) {
        ++seen->errors;
        fprintf(stderr, "%s\n", stillimage_last_error(client));
    }
    stillimage_frame_release(frame);
}

observed observe(stillimage_client* client, double seconds)
{
    observed seen;
    for (const double end = now_seconds() + seconds; now_seconds() < end;) {
        request_frame(client, &seen);
        sleep_seconds(gap_seconds);
    }
    std::sort(seen.seconds.begin(), seen.seconds.end());
    return seen;
}

double milliseconds_at(const observed& seen, size_t percent)
{
    return seen.seconds[(seen.seconds.size() - 1) * percent / 100] * 1e3;
}

void report(const char* name, const observed& seen, size_t before, size_t after)
{
    printf("%-26s p50 %7.3f  p99 %7.3f  max %7.3f ms  errors %d  memory %6zu -> %6zu KiB\n", name,
           milliseconds_at(seen, 50), milliseconds_at(seen, 99), milliseconds_at(seen, 100),
           seen.errors, before, after);
    fflush(stdout);
}

bool is_wanted(const hostile_client& hostile, int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(hostile.name).find(argv[i]) != std::string_view::npos) {
            return true;
        }
    }
    return argc == 1;
}

// `hostile` may be null: the client is alone.
void measure(const hostile_client* hostile)
{
    const worker_home home;
    const worker served(home, STILLIMAGE_TEST_DATA "/jpeg/harvesters-420.jpg");
    stillimage_client* connected = nullptr;
    if (!served.wait_ready() ||
        stillimage_connect(served.socket().c_str(), 10'000, &connected) != STILLIMAGE_OK) {
        fprintf(stderr, "hostile_clients_bench: no worker\n");
        exit(EXIT_FAILURE);
    }
    const open_client good(connected);
    observe(good.get(), seconds_of_warm_up);
    const size_t before = served.resident_kilobytes();
    observed seen;
    if (hostile != nullptr) {
        const hostile_process attack(*hostile, served.socket());
        seen = observe(good.get(), seconds_each);
    } else {
        seen = observe(good.get(), seconds_each);
    }
    eventually([&] { return served.resident_kilobytes() <= before + kibibytes_more; }, patience_ms);
    report(hostile != nullptr ? hostile->name : "(none)", seen, before,
           served.resident_kilobytes());
}

} // namespace

int main(int argc, char** argv)
{
    measure(nullptr);
    for (const hostile_client& hostile : hostile_clients()) {
        if (is_wanted(hostile, argc, argv)) {
            measure(&hostile);
        }
    }
    return EXIT_SUCCESS;
}
