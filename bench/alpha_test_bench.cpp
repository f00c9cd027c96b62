// The transparency test on an opaque plane, its worst case: bytes per second, compared with a copy.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "bin/framebuffer/alpha_test.h"

namespace {

constexpr int64_t narrow = 100;
constexpr int64_t in_cache = 16 << 10;
constexpr int64_t in_memory = 96 << 20;

void test_opaque(benchmark::State& state)
{
    const std::vector<unsigned char> samples(static_cast<size_t>(state.range(0)), 255);
    for (auto _ : state) {
        benchmark::DoNotOptimize(any_transparent(samples.data(), samples.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void copy(benchmark::State& state)
{
    const std::vector<unsigned char> from(static_cast<size_t>(state.range(0)), 255);
    std::vector<unsigned char> to(from.size());
    for (auto _ : state) {
        memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(test_opaque)->Arg(narrow)->Arg(in_cache)->Arg(in_memory);
BENCHMARK(copy)->Arg(narrow)->Arg(in_cache)->Arg(in_memory);

} // namespace

BENCHMARK_MAIN();
