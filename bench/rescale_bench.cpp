// Full range to video range: bytes per second of each version, with data in the cache and in
// memory, compared with a copy of the same bytes. The input is that of the unit test: random
// samples with a fixed seed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bin/decode/rescale.h"

namespace {

constexpr int64_t in_cache = 16 << 10;
constexpr int64_t one_row_group = 96 << 10; // 16 rows of 6000 samples
constexpr int64_t in_memory = 64 << 20;

std::vector<unsigned char> random_samples(size_t count)
{
    std::mt19937 random(1);
    std::vector<unsigned char> samples(count);
    std::generate(samples.begin(), samples.end(),
                  [&random] { return static_cast<unsigned char>(random()); });
    return samples;
}

void run(benchmark::State& state, void (*rescale)(unsigned char*, size_t))
{
    std::vector<unsigned char> samples = random_samples(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        rescale(samples.data(), samples.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void copy(benchmark::State& state)
{
    const std::vector<unsigned char> from = random_samples(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> to(from.size());
    for (auto _ : state) {
        memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark* bench)
{
    bench->Arg(in_cache)->Arg(one_row_group)->Arg(in_memory);
}

} // namespace

int main(int argc, char** argv)
{
    for (const rescale_kernel& kernel : rescale_kernels()) {
        if (runs_here(kernel.needs)) {
            const std::string name = kernel.name;
            sizes(benchmark::RegisterBenchmark(("luma_" + name).c_str(), run, kernel.luma));
            sizes(benchmark::RegisterBenchmark(("chroma_" + name).c_str(), run, kernel.chroma));
        }
    }
    sizes(benchmark::RegisterBenchmark("copy", copy));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
