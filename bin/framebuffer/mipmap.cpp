// A row of a level is filtered straight from three rows of the level above into the shared mapping.
// The chroma planes run over the luma's rows by rule: a subsampled plane's surplus comes from what
// lies behind it and goes into the spare rows of the level's own plane, which nobody shows.
#include "bin/framebuffer/mipmap.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/alpha_test.h"
#include "bin/framebuffer/mipmap_filter.h"
#include "bin/framebuffer/scanline_list.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"

int mipmaps_avail = 0;
bool checked_main_alpha = false;

namespace {

constexpr uint64_t row_slack = 32; // bytes asked for behind a destination row

struct plane {
    uint64_t offset;
    uint64_t stride; // 0: absent
};

std::array<plane, 4> planes_of(const mipmap_image& picture)
{
    return {{{picture.offset_Y, picture.stride_Y},
             {picture.offset_U, picture.stride_U},
             {picture.offset_V, picture.stride_V},
             {picture.offset_A, picture.stride_A}}};
}

// One plane on its way from a level to the next.
struct plane_pass {
    plane source;
    plane destination;
    int64_t source_rows;
    int64_t destination_rows; // allocated
    size_t samples;           // per destination row
    mipmap_kernel halve_row;
};

// Source rows that end too near the end of the buffer for the filter, copied with zeros behind.
using spare_rows = std::array<std::unique_ptr<unsigned char[]>, 3>;

const unsigned char* copy_with_zeros(const unsigned char* row, size_t readable, size_t columns,
                                     std::unique_ptr<unsigned char[]>& spare)
{
    if (spare == nullptr) {
        spare.reset(new (std::nothrow) unsigned char[columns]);
    }
    if (spare != nullptr) {
        memcpy(spare.get(), row, readable);
        memset(spare.get() + readable, 0, columns - readable);
    }
    return spare.get();
}

struct source_row {
    const unsigned char* data; // null when it cannot be had
    size_t readable;
};

// A source row with at least the columns that the filter reads.
source_row fetch_source_row(const plane_pass& pass, int64_t row,
                            std::unique_ptr<unsigned char[]>& spare)
{
    const size_t columns = filter_columns(pass.samples, pass.destination.stride);
    const uint64_t offset = pass.source.offset + static_cast<uint64_t>(row) * pass.source.stride;
    unsigned char* data = nullptr;
    unsigned long readable = 0;
    if (vexa_global_access_cache_get(vexa_acc_cache, image_cnb_buffer, offset, pass.source.stride,
                                     &data, &readable, access_read) == 0) {
        return {nullptr, 0};
    }
    if (readable < columns) {
        return {copy_with_zeros(data, readable, columns, spare), columns};
    }
    return {data, readable};
}

source_rows rows_around(const plane_pass& pass, int64_t y, spare_rows& spare)
{
    const int64_t last = pass.source_rows - 1;
    const uint64_t stride = pass.source.stride;
    const source_row above = fetch_source_row(pass, std::max<int64_t>(y - 1, 0), spare[0]);
    const source_row middle = fetch_source_row(pass, y, spare[1]);
    source_row below = fetch_source_row(pass, std::min(y + 1, last), spare[2]);
    if (below.data == nullptr) {
        below = middle;
    }
    const bool two_more = below.readable >= 3 * stride;
    return {above.data != nullptr ? above.data : middle.data, middle.data, below.data,
            two_more ? below.data + stride : below.data,
            two_more ? below.data + 2 * stride : below.data};
}

unsigned char* fetch_destination_row(const plane_pass& pass, int64_t row)
{
    const uint64_t stride = pass.destination.stride;
    unsigned char* data = nullptr;
    unsigned long unused = 0;
    if (vexa_global_access_cache_get(vexa_acc_cache, image_cnb_buffer,
                                     pass.destination.offset + static_cast<uint64_t>(row) * stride,
                                     stride + row_slack, &data, &unused, access_write) == 0) {
        fputs("Failed to memory-map drow\n", stderr);
        return nullptr;
    }
    return data;
}

// Destination row `row`; it keeps its content when its middle source row or it itself cannot be
// had.
void fill_row(const plane_pass& pass, int64_t row, spare_rows& spare)
{
    const source_rows rows = rows_around(pass, 2 * row, spare);
    if (rows.middle == nullptr) {
        return;
    }
    unsigned char* out = fetch_destination_row(pass, row);
    if (out != nullptr) {
        filter_row(out, rows, pass.samples, pass.destination.stride, pass.halve_row);
    }
}

void fill_plane(const plane_pass& pass)
{
    // The rows that the layout gave the plane are enough for full and for halved chroma; with
    // quartered chroma the surplus would run over the scanline list behind the planes.
    const int64_t rows = std::min((pass.source_rows + 1) / 2, pass.destination_rows);
    spare_rows spare;
    for (int64_t row = 0; row < rows && DIE4 == 0; ++row) {
        if ((row & 0xF0) == 0) {
            quickidle_comm();
        }
        fill_row(pass, row, spare);
    }
}

void warn_about_sizes(const mipmap_image& destination, const mipmap_image& source)
{
    if (destination.height != (source.height + 1) >> 1) {
        fputs("mipmap warning: mipmap width != 1/2 image height\n", stderr); // says width: kept
    }
    if (destination.width != (source.width + 1) >> 1) {
        fputs("mipmap warning: mipmap width != 1/2 image width\n", stderr);
    }
}

void fill_level(const mipmap_image& destination, const mipmap_image& source)
{
    const auto to = planes_of(destination);
    const auto from = planes_of(source);
    const mipmap_kernel halve_row = fastest_mipmap_kernel();
    for (size_t p = 0; p < to.size(); ++p) {
        const bool chroma = p == 1 || p == 2;
        if (to[p].stride != 0 && from[p].stride != 0) {
            fill_plane({from[p], to[p], source.height,
                        destination.buffer_height >> (chroma ? destination.chroma_y_shift : 0),
                        static_cast<size_t>(destination.width) >>
                            (chroma ? destination.chroma_x_shift : 0),
                        halve_row});
        }
    }
}

void drop_alpha_plane(mipmap_image& picture)
{
    picture.stride_A = 0;
    picture.offset_A = absent_plane;
}

// Frame 0 only: the records of further frames keep their A planes.
void drop_main_alpha()
{
    fputs("Image has opaque alpha channel. Disabling alpha channel.\n", stderr);
    image_has_alpha_channel = 0;
    image_offset_A = 0;
    image_stride_A = 0;
    drop_alpha_plane(main_image_mipmap);
    for (int i = 0; i < mipmaps; ++i) {
        drop_alpha_plane(mipmap[i]);
    }
    try_scanline_list(&main_image_mipmap, 1);
    for (int i = 0; i < mipmaps; ++i) {
        try_scanline_list(&mipmap[i], 1);
    }
}

void check_main_alpha()
{
    if (main_image_mipmap.stride_A != 0 && main_image_mipmap.offset_A != absent_plane) {
        const alpha_verdict verdict = test_alpha_plane(main_image_mipmap);
        if (verdict == ALPHA_UNDECIDED) {
            return;
        }
        if (verdict == ALPHA_OPAQUE) {
            drop_main_alpha();
        }
    }
    checked_main_alpha = true;
}

void generate_first_frame()
{
    for (int i = 0; i < mipmaps; ++i) {
        gen_mipmap(&mipmap[i], i == 0 ? &main_image_mipmap : &mipmap[i - 1]);
    }
}

mipmap_image* further_main(size_t i)
{
    INVARIANT(i < secondary_image_mipmap_main.size(), "i < secondary_image_mipmap_main.size()");
    return &secondary_image_mipmap_main[i];
}

mipmap_image* further_level(int t, size_t i)
{
    INVARIANT(i < secondary_image_mipmap[t].size(), "i < secondary_image_mipmap[t].size()");
    return &secondary_image_mipmap[t][i];
}

void generate_further_frame(size_t j)
{
    for (int i = 0; i < mipmaps; ++i) {
        gen_mipmap(further_level(i, j), i == 0 ? further_main(j) : further_level(i - 1, j));
    }
}

} // namespace

void gen_mipmap(mipmap_image* destination, mipmap_image* source)
{
    dac8_gamma22_init_do();
    fprintf(stderr, "Generating mipmap %d x %d\n", destination->width, destination->height);
    warn_about_sizes(*destination, *source);
    if (destination->stride_Y != 0 && source->stride_Y != 0) {
        fill_level(*destination, *source);
    }
}

void generate_all_mipmaps()
{
    if (image_has_alpha_channel != 0 && !checked_main_alpha) {
        check_main_alpha();
    }
    generate_first_frame();
    for (uint64_t frame = 1; frame < image_decoded_frames; ++frame) {
        generate_further_frame(frame - 1);
    }
    mipmaps_avail = mipmaps;
}

void reset_mipmaps()
{
    mipmaps_avail = 0;
    checked_main_alpha = false;
}
