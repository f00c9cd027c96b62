// The whole pyramid of a 24-megapixel 4:2:0 picture in a real frame buffer, with every row through
// the access cache: source bytes per second over all planes and levels, compared with a copy of the
// full-size planes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "platform/cnb.h"
#include "platform/start_up.h"

namespace {

void describe_picture()
{
    image_width = 6000;
    image_height = 4000;
    image_buffer_height = 4000;
    image_chroma_x_shift = image_chroma_y_shift = 1;
}

unsigned char* allocate_frame_buffer()
{
    layout_full_size();
    layout_mipmaps();
    cnb_alloc_init();
    if (vexa_join_cnb_domain() != 0 || cnb_default_buffer_load() != 0 ||
        !cnb_malloc(&image_cnb_alloc, image_decoded_size, "Image")) {
        return nullptr;
    }
    vexa_acc_cache = vexa_global_access_cache_create();
    build_picture_records();
    return vexa_global_access_cache_quickfetch(vexa_acc_cache, image_cnb_buffer, 0,
                                               image_decoded_size, access_write);
}

void fill_planes(unsigned char* buffer)
{
    std::mt19937 random(1);
    for (uint64_t i = 0; i < image_scanline_data_buffer_offset; ++i) {
        buffer[i] = static_cast<unsigned char>(random() >> 24);
    }
}

// The bytes that the filter reads: for each source level, each plane over the number of luma rows.
int64_t source_bytes()
{
    uint64_t bytes = 0;
    for (int i = 0; i < mipmaps; ++i) {
        const mipmap_image& source = i == 0 ? main_image_mipmap : mipmap[i - 1];
        bytes += static_cast<uint64_t>(source.height) *
                 (source.stride_Y + source.stride_U + source.stride_V + source.stride_A);
    }
    return static_cast<int64_t>(bytes);
}

void pyramid(benchmark::State& state)
{
    for (auto _ : state) {
        generate_all_mipmaps();
    }
    state.SetBytesProcessed(state.iterations() * source_bytes());
}

void copy_planes(benchmark::State& state, const unsigned char* buffer)
{
    std::vector<unsigned char> to(image_scanline_data_buffer_offset);
    for (auto _ : state) {
        memcpy(to.data(), buffer, to.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(to.size()));
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    describe_picture();
    // Hide the program's messages.
    if (freopen("/dev/null", "w", stderr) == nullptr) {
        return EXIT_FAILURE;
    }
    unsigned char* buffer = allocate_frame_buffer();
    if (buffer == nullptr) {
        puts("no frame buffer");
        return EXIT_FAILURE;
    }
    fill_planes(buffer);
    benchmark::RegisterBenchmark("pyramid", pyramid)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("copy", copy_planes, buffer)->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    cnb_free(&image_cnb_alloc);
    cnb_default_buffer_drop();
    return 0;
}
