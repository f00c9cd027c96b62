// A row of a level is filtered straight from three rows of the level above into the shared mapping.
// By rule the chroma planes cover the luma's number of rows: the surplus rows of a subsampled plane
// come from what lies behind it, and go into the spare rows of the level's own plane, which nobody
// shows.
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
#include "platform/misc.h"
#include "platform/run_state.h"

int mipmaps_avail = 0;
bool checked_main_alpha = false;

namespace {

constexpr uint64_t row_slack = 32; // bytes requested after a destination row

// --- one plane of a level -----------------------------------------------------------------------

// The reduction of one plane from a level to the next.
struct plane_pass {
    plane_place source;
    plane_place destination;
    int64_t source_rows;
    int64_t destination_rows; // allocated
    size_t samples;           // per destination row
};

// Copies, followed by zeros, of source rows that end too near the end of the buffer for the filter.
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
    const unsigned char* data; // null when it cannot be mapped
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

// A destination row keeps its content when its middle source row or the row itself cannot be
// mapped.
void fill_plane(const plane_pass& pass)
{
    // The layout's rows are enough for full and for halved chroma; with quartered chroma the
    // surplus would overwrite the scanline list after the planes.
    const int64_t rows = std::min((pass.source_rows + 1) / 2, pass.destination_rows);
    static const row_halver halve_row = best_version(mipmap_kernels()).halve_row;
    spare_rows spare;
    for (int64_t row = 0; row < rows && DIE4 == 0; ++row) {
        if ((row & 0xF0) == 0) {
            quickidle_comm();
        }
        const source_rows source = rows_around(pass, 2 * row, spare);
        unsigned char* out = source.middle != nullptr ? fetch_destination_row(pass, row) : nullptr;
        if (out != nullptr) {
            filter_row(out, source, pass.samples, pass.destination.stride, halve_row);
        }
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

// --- the alpha plane ----------------------------------------------------------------------------

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

// --- the levels of a frame ----------------------------------------------------------------------

// The full-size picture of the frame.
mipmap_image* full_size_of(uint64_t frame)
{
    if (frame == 0) {
        return &main_image_mipmap;
    }
    const uint64_t i = frame - 1;
    INVARIANT(i < secondary_image_mipmap_main.size(), "i < secondary_image_mipmap_main.size()");
    return &secondary_image_mipmap_main[i];
}

mipmap_image* level_of(uint64_t frame, int t)
{
    if (frame == 0) {
        return &mipmap[t];
    }
    const uint64_t i = frame - 1;
    INVARIANT(i < secondary_image_mipmap[t].size(), "i < secondary_image_mipmap[t].size()");
    return &secondary_image_mipmap[t][i];
}

} // namespace

void gen_mipmap(mipmap_image* destination, mipmap_image* source)
{
    dac8_gamma22_init_do();
    fprintf(stderr, "Generating mipmap %d x %d\n", destination->width, destination->height);
    warn_about_sizes(*destination, *source);
    if (destination->stride_Y == 0 || source->stride_Y == 0) {
        return;
    }
    const auto to = planes_of(*destination);
    const auto from = planes_of(*source);
    for (size_t p = 0; p < to.size(); ++p) {
        if (to[p].stride != 0 && from[p].stride != 0) {
            fill_plane({from[p], to[p], source->height, destination->buffer_height >> to[p].y_shift,
                        static_cast<size_t>(destination->width) >> to[p].x_shift});
        }
    }
}

void generate_all_mipmaps()
{
    if (image_has_alpha_channel != 0 && !checked_main_alpha) {
        check_main_alpha();
    }
    const uint64_t frames = std::max<uint64_t>(image_decoded_frames, 1);
    for (uint64_t frame = 0; frame < frames; ++frame) {
        for (int i = 0; i < mipmaps; ++i) {
            mipmap_image* above = i == 0 ? full_size_of(frame) : level_of(frame, i - 1);
            gen_mipmap(level_of(frame, i), above);
        }
    }
    mipmaps_avail = mipmaps;
}

void reset_mipmaps()
{
    mipmaps_avail = 0;
    checked_main_alpha = false;
}
