// Compares several ways to get fresh shared memory and write it for the first time. The ways
// alternate for several rounds; each figure is the median of the rounds' ratios to plain page
// faults.
//
//   first_touch_bench [MEGABYTES]      default 256
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "common/unique_fd.h"
#include "platform/cnb.h"
#include "platform/standalone/base/mapping.h"
#include "platform/standalone/cnb/access_cache.h"
#include "platform/standalone/cnb/domain.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

using platform::mapping;

namespace {

constexpr int rounds = 9;
constexpr uint64_t band = 192'000; // bytes: 32 rows of 6000, as decoders write them
constexpr uint64_t everything = UINT64_MAX;

struct cost {
    double reserve = 0; // seconds to get the memory
    double write = 0;   // seconds to write all of it
};

struct way {
    const char* name;
    bool reserve;   // fallocate first; otherwise only set the file's length
    int map_flags;  // besides MAP_SHARED
    uint64_t piece; // bytes populated at a time ahead of the writer; 0: page faults only
};

constexpr way ways[] = {
    {"faults", false, 0, 0},
    {"populated when mapped", false, MAP_POPULATE, 0},
    {"everything populated first", false, 0, everything},
    {"fallocate, faults", true, 0, 0},
    {"fallocate, 16 KiB ahead", true, 0, 16 << 10},
    {"fallocate, 64 KiB ahead", true, 0, 64 << 10},
    {"fallocate, 128 KiB ahead", true, 0, 128 << 10},
    {"fallocate, 256 KiB ahead", true, 0, 256 << 10},
    {"fallocate, 1 MiB ahead", true, 0, 1 << 20},
    {"fallocate, 8 MiB ahead", true, 0, 8 << 20},
    {"fallocate, everything populated first", true, 0, everything},
};

[[noreturn]] void give_up(const char* what)
{
    perror(what);
    exit(1);
}

// Processor time, which varies less than wall time on a busy machine.
double now()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void write_in_bands(unsigned char* memory, uint64_t size, uint64_t piece)
{
    uint64_t present = 0;
    for (uint64_t begin = 0; begin < size; begin += band) {
        const uint64_t end = std::min(begin + band, size);
        while (piece != 0 && present < end) {
            const uint64_t length = std::min(piece, size - present);
            madvise(memory + present, length, MADV_POPULATE_WRITE);
            present += length;
        }
        memset(memory + begin, static_cast<int>(begin >> 12), end - begin);
    }
}

cost measure(const way& tried, uint64_t size)
{
    const double begin = now();
    const unique_fd file(memfd_create("bench", MFD_CLOEXEC));
    const auto length = static_cast<off_t>(size);
    const int result =
        tried.reserve ? fallocate(file.get(), 0, 0, length) : ftruncate(file.get(), length);
    if (result != 0) {
        give_up("memory");
    }
    void* address =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | tried.map_flags, file.get(), 0);
    if (address == MAP_FAILED) {
        give_up("mmap");
    }
    const mapping memory(address, size);
    const double reserved = now();
    write_in_bands(memory.data(), size, tried.piece);
    return {reserved - begin, now() - reserved};
}

// The way that the worker uses: the platform's buffer and access cache.
cost measure_platform(uint64_t size)
{
    static vexa_global_access_cache* const cache = vexa_global_access_cache_create();
    cnb_static_alloc = 1;
    cnb_total = size;
    cnb_allocation allocation;
    const double begin = now();
    if (cnb_default_buffer_load() != 0 || !cnb_malloc(&allocation, size, "bench")) {
        give_up("buffer");
    }
    const double reserved = now();
    for (uint64_t offset = 0; offset < size; offset += band) {
        const uint64_t length = std::min(band, size - offset);
        unsigned char* rows = vexa_global_access_cache_quickfetch(cache, image_cnb_buffer, offset,
                                                                  length, access_write);
        memset(rows, static_cast<int>(offset >> 12), length);
    }
    const cost result = {reserved - begin, now() - reserved};
    cnb_default_buffer_drop();
    return result;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void print_line(const char* name, const std::vector<cost>& costs, const std::vector<cost>& floor)
{
    std::vector<double> reserve;
    std::vector<double> write;
    std::vector<double> sum;
    for (size_t i = 0; i < costs.size(); ++i) {
        const double whole = floor[i].reserve + floor[i].write;
        reserve.push_back(costs[i].reserve / whole);
        write.push_back(costs[i].write / whole);
        sum.push_back((costs[i].reserve + costs[i].write) / whole);
    }
    printf("%-36s %8.2f %8.2f %8.2f\n", name, median(reserve), median(write), median(sum));
}

} // namespace

int main(int argc, char** argv)
{
    const uint64_t size = strtoull(argc > 1 ? argv[1] : "256", nullptr, 10) << 20;
    platform::cnb_set_domain("bench", size);
    if (size == 0 || platform::cnb_join_domain() != 0) {
        return 1;
    }
    std::vector<std::vector<cost>> costs(std::size(ways) + 1);
    for (int round = -1; round < rounds; ++round) { // the first one warms up
        for (size_t i = 0; i < costs.size(); ++i) {
            const cost result =
                i < std::size(ways) ? measure(ways[i], size) : measure_platform(size);
            if (round >= 0) {
                costs[i].push_back(result);
            }
        }
    }
    const double floor = costs[0][rounds / 2].write / (static_cast<double>(size) / 4096) * 1e6;
    printf("plain faults: about %.2f us for 4 KiB; the figures below are relative to them\n\n",
           floor);
    printf("%-36s %8s %8s %8s\n", "", "reserve", "write", "both");
    for (size_t i = 0; i < costs.size(); ++i) {
        print_line(i < std::size(ways) ? ways[i].name : "the platform's buffer and cache", costs[i],
                   costs[0]);
    }
    platform::cnb_leave_domain();
    return 0;
}
