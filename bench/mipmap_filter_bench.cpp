// The pyramid's filter: source bytes per second of each version, compared with a copy of the same
// plane: a plane of a 24-megapixel picture, one of 96 megapixels that fits no cache, and a small
// one.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bin/framebuffer/mipmap_filter.h"

namespace {

// Random bytes with a fixed seed, and two spare rows for the filter's prefetching.
std::vector<unsigned char> random_plane(size_t width, size_t height)
{
    std::mt19937 random(1);
    std::vector<unsigned char> plane(width * (height + 2));
    std::generate(plane.begin(), plane.end(),
                  [&random] { return static_cast<unsigned char>(random() >> 24); });
    return plane;
}

void halve(benchmark::State& state, row_halver kernel)
{
    const auto width = static_cast<size_t>(state.range(0));
    const auto height = static_cast<size_t>(state.range(1));
    const std::vector<unsigned char> plane = random_plane(width, height);
    const size_t half = width / 2;
    std::vector<unsigned char> level(half * height / 2);
    for (auto _ : state) {
        for (size_t y = 0; y < height; y += 2) {
            const unsigned char* middle = plane.data() + y * width;
            const source_rows rows = {y == 0 ? middle : middle - width, middle, middle + width,
                                      middle + 2 * width, middle + 3 * width};
            filter_row(level.data() + y / 2 * half, rows, half, half, kernel);
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void copy(benchmark::State& state)
{
    const auto width = static_cast<size_t>(state.range(0));
    const auto height = static_cast<size_t>(state.range(1));
    const std::vector<unsigned char> plane = random_plane(width, height);
    std::vector<unsigned char> to(width * height);
    for (auto _ : state) {
        memcpy(to.data(), plane.data(), to.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void sizes(benchmark::internal::Benchmark* bench)
{
    bench->Args({6000, 4000})->Args({12000, 8000})->Args({512, 256});
}

} // namespace

int main(int argc, char** argv)
{
    for (const mipmap_kernel& variant : mipmap_kernels()) {
        if (runs_here(variant.needs)) {
            benchmark::RegisterBenchmark(std::string("halve/").append(variant.name).c_str(), halve,
                                         variant.halve_row)
                ->Apply(sizes);
        }
    }
    benchmark::RegisterBenchmark("copy", copy)->Apply(sizes);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
