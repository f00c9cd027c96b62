// Compares a request to the access cache with an empty call, and fetching and writing a row with
// only writing it.
#include <cstdint>
#include <cstring>

#include <benchmark/benchmark.h>

#include "platform/cnb.h"
#include "platform/standalone/cnb/domain.h"

namespace {

constexpr uint64_t buffer_size = uint64_t{64} << 20;
constexpr uint64_t row_size = 6000;

vexa_global_access_cache* cache = nullptr;

// The next row's offset; starts again at the end of the buffer.
uint64_t next_row(uint64_t offset)
{
    return offset + 2 * row_size <= buffer_size ? offset + row_size : 0;
}

unsigned char* __attribute__((noinline))
empty_call(vexa_global_access_cache* unused, uint32_t number, uint64_t offset, uint64_t length,
           int mode)
{
    benchmark::DoNotOptimize(unused);
    benchmark::DoNotOptimize(number);
    benchmark::DoNotOptimize(length);
    benchmark::DoNotOptimize(mode);
    return reinterpret_cast<unsigned char*>(offset);
}

template <auto fetch, int mode>
void request(benchmark::State& state)
{
    uint64_t offset = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fetch(cache, image_cnb_buffer, offset, row_size, mode));
        offset = next_row(offset);
    }
    state.SetItemsProcessed(state.iterations());
}

void get(benchmark::State& state)
{
    uint64_t offset = 0;
    unsigned char* data = nullptr;
    unsigned long rest = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vexa_global_access_cache_get(cache, image_cnb_buffer, offset,
                                                              row_size, &data, &rest, access_read));
        offset = next_row(offset);
    }
    state.SetItemsProcessed(state.iterations());
}

void clean_up(benchmark::State& state)
{
    for (auto _ : state) {
        vexa_global_access_cache_cleanup_idle(cache);
    }
    state.SetItemsProcessed(state.iterations());
}

// Fetches every row again, as the mipmap generator does.
void fetch_and_write_rows(benchmark::State& state)
{
    uint64_t offset = 0;
    for (auto _ : state) {
        unsigned char* row = vexa_global_access_cache_quickfetch(cache, image_cnb_buffer, offset,
                                                                 row_size, access_write);
        memset(row, 16, row_size);
        offset = next_row(offset);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row_size));
}

void write_rows(benchmark::State& state)
{
    unsigned char* bytes =
        vexa_global_access_cache_quickfetch(cache, image_cnb_buffer, 0, buffer_size, access_write);
    uint64_t offset = 0;
    for (auto _ : state) {
        memset(bytes + offset, 16, row_size);
        offset = next_row(offset);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row_size));
}

bool load_buffer(cnb_allocation* allocation)
{
    platform::cnb_set_domain("bench", buffer_size);
    cnb_static_alloc = 1;
    cnb_total = buffer_size;
    cache = vexa_global_access_cache_create();
    return platform::cnb_join_domain() == 0 && cnb_default_buffer_load() == 0 &&
           cnb_malloc(allocation, buffer_size, "bench");
}

constexpr auto quickfetch = vexa_global_access_cache_quickfetch;

BENCHMARK(request<empty_call, access_read>)->Name("empty call");
BENCHMARK(request<quickfetch, access_read>)->Name("quickfetch for reading");
BENCHMARK(request<quickfetch, access_write>)->Name("quickfetch for writing");
BENCHMARK(get);
BENCHMARK(clean_up);
BENCHMARK(write_rows);
BENCHMARK(fetch_and_write_rows);

} // namespace

int main(int argc, char** argv)
{
    cnb_allocation allocation;
    if (!load_buffer(&allocation)) {
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    cnb_alloc_freeall();
    platform::cnb_leave_domain();
    return 0;
}
