// For each row group a band of 32 or 64 rows is mapped at the next row. By rule the whole band is
// black before the library writes its group into the top of it. The groups that follow overwrite
// all but the last band, so black is painted only where it stays: in the stride padding, in the
// rows of a group that the library leaves out, and, when the loop ends, below the last group.
//
// The library writes whole blocks. Usually they fit the stride and go straight into the plane.
// Blocks of other sizes than 8 may be wider than the stride; these go through scratch rows. A group
// may also have more than the 16 rows that a decoder accepts; one surplus row receives all of
// those.
#include "bin/decode/jpeg_rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

#include "bin/decode/jpeg_start.h"
#include "bin/decode/planes.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"
#include "platform/status.h"

namespace {

constexpr int max_components = 4;
constexpr int k_component = 3; // the components before it are the planes Y, U, V
constexpr int max_block = 16;

// The highest row group that the library can make: four block rows.
constexpr int pointer_rows = MAX_SAMP_FACTOR * max_block;

// The widest row of blocks that the library can write.
constexpr uint64_t scratch_width = image_size_limit + max_block;

unsigned char scratch_rows[max_components][max_jpeg_group_rows][scratch_width];
unsigned char surplus_row[scratch_width]; // written, never read

constexpr uint64_t stopped = UINT64_MAX; // instead of a row count: a termination signal

// --- one row group ------------------------------------------------------------------------------

// Where one component of a row group goes, and how much of it the library delivers.
struct component_rows {
    unsigned char* base;
    uint64_t stride;
    uint64_t pointers;  // rows that the library may write in place
    uint64_t width;     // bytes that it writes to a row
    uint64_t delivered; // rows that it writes
    bool fits;          // width <= stride
};

uint64_t component_row_count(int component, uint64_t luma_rows)
{
    return component == k_component ? luma_rows : plane_rows(component, luma_rows);
}

// Block rows that the picture has left for this component, at most one row group; counted in rows.
uint64_t delivered_rows(const jpeg_component_info& info, uint64_t row)
{
    const auto lines = static_cast<uint64_t>(jpeg_decompress->max_v_samp_factor) *
                       static_cast<uint64_t>(jpeg_decompress->min_DCT_v_scaled_size);
    const auto factor = static_cast<uint64_t>(info.v_samp_factor);
    const uint64_t left = info.height_in_blocks - row / lines * factor;
    return std::min(left, factor) * static_cast<uint64_t>(info.DCT_v_scaled_size);
}

component_rows place_component(int component, const plane_band& band, unsigned char* k_rows,
                               uint64_t row)
{
    const bool is_k = component == k_component;
    const jpeg_component_info& info = jpeg_decompress->comp_info[component];
    component_rows place = {};
    place.base = is_k ? k_rows : band.base[component];
    place.stride = is_k ? image_stride_Y : *frame_planes[component].stride;
    place.pointers =
        component_row_count(component, std::min<uint64_t>(band.rows, max_jpeg_group_rows));
    place.width =
        static_cast<uint64_t>(info.width_in_blocks) * static_cast<uint64_t>(info.DCT_h_scaled_size);
    place.delivered = delivered_rows(info, row);
    place.fits = place.width <= place.stride;
    return place;
}

void point_rows(const component_rows& place, int component, JSAMPROW* rows)
{
    for (uint64_t i = 0; i < pointer_rows; ++i) {
        if (i >= place.pointers) {
            rows[i] = surplus_row;
        } else if (place.fits) {
            rows[i] = place.base + i * place.stride;
        } else {
            rows[i] = scratch_rows[component][i];
        }
    }
}

// Completes the component's part of a group of `group_rows` rows: delivered samples, cut to the
// stride, and black elsewhere. K has no black and keeps what was there.
void complete_component(const plane_band& band, const component_rows& place, int component,
                        uint64_t group_rows)
{
    const uint64_t delivered = std::min(place.delivered, group_rows);
    if (!place.fits) {
        for (uint64_t i = 0; i < delivered; ++i) {
            memcpy(place.base + i * place.stride, scratch_rows[component][i], place.stride);
        }
    }
    if (component == k_component) {
        return;
    }
    blacken_plane(band, component, {0, delivered, place.width});
    blacken_plane(band, component, {delivered, group_rows});
}

// The library's row group, or `stopped`. The jump may only be armed while this frame is live.
uint64_t read_raw_rows(JSAMPIMAGE components, JDIMENSION room)
{
    if (setjmp(jpeg_stop_jumpto) != 0) {
        return stopped;
    }
    jpeg_stop_armed = true;
    const uint64_t drawn = jpeg_read_raw_data(jpeg_decompress, components, room);
    jpeg_stop_armed = false;
    return drawn;
}

// Draws the next row group into the top of the band and returns its luma rows: 0 when the library
// has none, `stopped` when a signal ended the reading.
uint64_t read_row_group(const jpeg_variant& variant, const plane_band& band, unsigned char* k_rows,
                        uint64_t row)
{
    JSAMPROW rows[max_components][pointer_rows];
    JSAMPARRAY components[max_components] = {};
    component_rows places[max_components] = {};
    const int count = jpeg_decompress->num_components;
    for (int i = 0; i < count; ++i) {
        places[i] = place_component(i, band, k_rows, row);
        point_rows(places[i], i, rows[i]);
        components[i] = rows[i];
    }
    const uint64_t drawn = read_raw_rows(components, static_cast<JDIMENSION>(band.rows));
    if (drawn == stopped) {
        return stopped;
    }
    check_invariant(variant.name, drawn <= max_jpeg_group_rows, "irem <= 16");
    if (drawn != 0) {
        for (int i = 0; i < count; ++i) {
            complete_component(band, places[i], i, component_row_count(i, drawn));
        }
    }
    return drawn;
}

// --- the loop -----------------------------------------------------------------------------------

bool map_next_band(const jpeg_variant& variant, uint64_t row, plane_band* band)
{
    const uint64_t left = static_cast<uint64_t>(image_buffer_height) - row;
    const uint64_t rows = std::min(left, variant.band_rows);
    check_invariant(variant.name, rows != 0, "ys != 0u");
    return map_band({.planes = variant.planes, .first_row = row, .rows = rows}, band);
}

bool row_counters_agree(uint64_t row)
{
    if (jpeg_decompress->output_scanline == row) {
        return true;
    }
    fprintf(stderr, "JPEGLIB scan line counter mismatch %d != %d\n", static_cast<int>(row),
            static_cast<int>(jpeg_decompress->output_scanline));
    jpeg_abort_decompress(jpeg_decompress);
    return false;
}

// Reads what follows the last row. The jump may only be armed while this frame is live.
void finish()
{
    if (setjmp(jpeg_stop_jumpto) == 0) {
        jpeg_stop_armed = true;
        jpeg_finish_decompress(jpeg_decompress);
        jpeg_stop_armed = false;
    }
}

// Draws one row group at *row and advances *row. False when the loop has to stop. *band is the last
// band that was mapped.
bool draw_row_group(const jpeg_variant& variant, unsigned char* k_rows, uint64_t* row,
                    plane_band* band)
{
    const auto height = static_cast<uint64_t>(image_height);
    vexa_status_write(static_cast<int>(*row * 100 / height), "Decoding JPEG");
    quickidle_comm();
    if (!row_counters_agree(*row) || (variant.polls_die4_twice && DIE4 != 0) ||
        !map_next_band(variant, *row, band)) {
        return false;
    }
    const uint64_t drawn = read_row_group(variant, *band, k_rows, *row);
    if (drawn == stopped) {
        return false;
    }
    if (drawn == 0) {
        fputs("JPEG decode error. Aborting.\n", stderr);
        jpeg_abort_decompress(jpeg_decompress);
        return false;
    }
    band->drawn = drawn;
    variant.convert(samples_at(*band, 0), k_rows, drawn);
    *row += drawn;
    if (*row >= height) {
        finish();
    }
    return true;
}

} // namespace

int decode_jpeg_rows(const jpeg_variant& variant, unsigned char* k_rows)
{
    if (start_jpeg_decompress() != 0) {
        return -1;
    }
    const auto buffer_height = static_cast<uint64_t>(image_buffer_height);
    uint64_t row = 0;
    plane_band band = {};
    bool drawing = true;
    while (drawing && DIE4 == 0 && row < buffer_height && row < jpeg_decompress->output_height) {
        drawing = draw_row_group(variant, k_rows, &row, &band);
    }
    blacken_undrawn(band);
    vexa_status_write(100, "");
    return 0;
}
