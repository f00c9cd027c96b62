// Interleaved pixels to planes: bytes of pixels per second of each version, with data in the cache,
// a band of rows at a time, and with data in memory, compared with a copy of the same bytes. The
// input is that of the unit test: random bytes with a fixed seed. The version "portable" is the
// scalar rule; `ratio` is a version's speed divided by that of "portable", measured alternately.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bin/decode/colour_rows.h"

namespace {

constexpr int64_t in_cache = 4 << 10; // pixels
constexpr int64_t four_rows = 24'000;
constexpr int64_t in_memory = 24'000'000;

struct pixel_kind {
    const char* name;
    int64_t bytes;
    colour_run colour_kernel::*run;
};

constexpr pixel_kind kinds[] = {
    {"rgb", 3, &colour_kernel::rgb},
    {"rgba", 4, &colour_kernel::rgba},
    {"grey_alpha", 2, &colour_kernel::grey_alpha},
    {"yuva", 4, &colour_kernel::yuva},
};

std::vector<unsigned char> random_bytes(size_t count)
{
    std::mt19937 random(1);
    std::vector<unsigned char> bytes(count);
    std::generate(bytes.begin(), bytes.end(),
                  [&random] { return static_cast<unsigned char>(random()); });
    return bytes;
}

double seconds_now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void run(benchmark::State& state, const pixel_kind& kind, const colour_kernel& kernel)
{
    const auto count = static_cast<size_t>(state.range(0));
    const std::vector<unsigned char> pixels = random_bytes(count * static_cast<size_t>(kind.bytes));
    std::vector<unsigned char> planes(count * 4);
    const sample_planes to = {planes.data(), planes.data() + count, planes.data() + 2 * count,
                              planes.data() + 3 * count};
    const colour_run plain = colour_kernels().back().*kind.run;
    double plain_seconds = 0;
    double seconds = 0;
    for (auto _ : state) {
        const double begin = seconds_now();
        plain(pixels.data(), count, to);
        benchmark::ClobberMemory();
        const double middle = seconds_now();
        (kernel.*kind.run)(pixels.data(), count, to);
        benchmark::ClobberMemory();
        const double end = seconds_now();
        plain_seconds += middle - begin;
        seconds += end - middle;
        state.SetIterationTime(end - middle);
    }
    state.counters["ratio"] = plain_seconds / seconds;
    state.SetBytesProcessed(state.iterations() * state.range(0) * kind.bytes);
}

void copy(benchmark::State& state)
{
    const std::vector<unsigned char> from = random_bytes(static_cast<size_t>(state.range(0)) * 3);
    std::vector<unsigned char> to(from.size());
    for (auto _ : state) {
        memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * 3);
}

void sizes(benchmark::internal::Benchmark* bench)
{
    bench->Arg(in_cache)->Arg(four_rows)->Arg(in_memory);
}

} // namespace

int main(int argc, char** argv)
{
    for (const pixel_kind& kind : kinds) {
        for (const colour_kernel& kernel : colour_kernels()) {
            if (!runs_here(kernel.needs)) {
                continue;
            }
            const std::string name = std::string(kind.name) + "_" + kernel.name;
            sizes(benchmark::RegisterBenchmark(name.c_str(), [&kind,
                                                              &kernel](benchmark::State& state) {
                      run(state, kind, kernel);
                  })->UseManualTime());
        }
    }
    sizes(benchmark::RegisterBenchmark("copy_rgb", copy));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
