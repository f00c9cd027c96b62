// For each row group a band of 32 or 64 rows is mapped at the row that comes next. By rule the
// whole band is black before the library draws its group into the top of it. All but the last band
// is drawn over by the groups that follow, so the black is painted only where it stays: in the
// stride padding and the rows that the library leaves out of a group, and, when the loop ends, in
// the rows of the last band below its group.
//
// The library writes whole blocks. Usually they fit the stride and are written straight into the
// plane; blocks of other sizes than 8 may pass it, and then go through scratch rows. A group may
// also have more rows than the 16 that a decoder accepts; a single scratch row takes all of those.
#include "bin/decode/jpeg_rows.h"

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
#include "platform/media_item.h"

namespace {

constexpr int most_components = 4;
constexpr int largest_block = 16;

// The highest row group that the library can make: four block rows.
constexpr int pointer_rows = MAX_SAMP_FACTOR * largest_block;

// The widest row of blocks that the library can write.
constexpr uint64_t scratch_width = image_size_limit + largest_block;

unsigned char scratch_rows[most_components][most_jpeg_group_rows][scratch_width];
unsigned char surplus_row[scratch_width]; // what is written here is never read

constexpr int k_component = 3;

constexpr uint64_t stopped = UINT64_MAX; // in place of a row group: a termination signal

// The mapped rows at the current position.
struct band {
    unsigned char* base[most_components]; // null for planes that are not drawn
    uint64_t rows;                        // luma rows mapped
    uint64_t drawn;                       // luma rows of the group at its top
};
static_assert(std::is_trivially_destructible_v<band>);

bool map_band(const jpeg_variant& variant, uint64_t row, uint64_t buffer_height, band* mapped)
{
    const uint64_t left = buffer_height - row;
    mapped->rows = left < variant.band_rows ? left : variant.band_rows;
    mapped->drawn = 0;
    check_jpeg_invariant(variant, mapped->rows != 0, "ys != 0u");
    for (int i = 0; i < variant.planes; ++i) {
        mapped->base[i] = map_plane_rows(frame_planes[i], row, mapped->rows);
        if (mapped->base[i] == nullptr) {
            return false;
        }
    }
    return true;
}

// --- one row group ------------------------------------------------------------------------------

// Where one component of a row group goes, and how much of it the library delivers.
struct component_rows {
    unsigned char* base;
    uint64_t stride;
    uint64_t pointers;  // rows that the library may draw in place
    uint64_t width;     // bytes that it writes to a row
    uint64_t delivered; // rows that it writes
    bool fits;          // width <= stride
};

// Rows of blocks that the picture has left for this component, at most one row group.
uint64_t delivered_rows(const jpeg_component_info& info, uint64_t row)
{
    const auto lines = static_cast<uint64_t>(jpeg_decompress->max_v_samp_factor) *
                       static_cast<uint64_t>(jpeg_decompress->min_DCT_v_scaled_size);
    const auto factor = static_cast<uint64_t>(info.v_samp_factor);
    const uint64_t left = info.height_in_blocks - row / lines * factor;
    return (left < factor ? left : factor) * static_cast<uint64_t>(info.DCT_v_scaled_size);
}

component_rows place_component(int component, const band& mapped, uint64_t row)
{
    const jpeg_component_info& info = jpeg_decompress->comp_info[component];
    component_rows place = {};
    place.base = mapped.base[component];
    place.stride = image_stride_Y;
    place.pointers = mapped.rows < most_jpeg_group_rows ? mapped.rows : most_jpeg_group_rows;
    if (component != k_component) {
        place.stride = *frame_planes[component].stride;
        place.pointers = plane_rows(frame_planes[component], place.pointers);
    }
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

// Brings the component's part of a group of `group_rows` rows to what the rules ask for: delivered
// samples, cut to the stride, and black elsewhere. K has no black; it keeps what was there.
void complete_component(const component_rows& place, int component, uint64_t group_rows)
{
    const uint64_t delivered = place.delivered < group_rows ? place.delivered : group_rows;
    for (uint64_t i = 0; i < delivered; ++i) {
        unsigned char* row = place.base + i * place.stride;
        if (!place.fits) {
            memcpy(row, scratch_rows[component][i], place.stride);
        } else if (component != k_component) {
            memset(row + place.width, frame_planes[component].black, place.stride - place.width);
        }
    }
    if (component != k_component) {
        memset(place.base + delivered * place.stride, frame_planes[component].black,
               (group_rows - delivered) * place.stride);
    }
}

uint64_t group_rows_of(int component, uint64_t luma_rows)
{
    return component == k_component ? luma_rows : plane_rows(frame_planes[component], luma_rows);
}

// The library's row group, or `stopped`. A frame of its own, live while the jump is armed.
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

// Draws the next row group into the top of the band. Its luma rows; 0 when the library has none;
// `stopped` when it was left in the middle.
uint64_t read_row_group(const jpeg_variant& variant, const band& mapped, uint64_t row)
{
    JSAMPROW rows[most_components][pointer_rows];
    JSAMPARRAY components[most_components] = {};
    component_rows places[most_components] = {};
    const int count = jpeg_decompress->num_components;
    for (int i = 0; i < count; ++i) {
        places[i] = place_component(i, mapped, row);
        point_rows(places[i], i, rows[i]);
        components[i] = rows[i];
    }
    const uint64_t drawn = read_raw_rows(components, static_cast<JDIMENSION>(mapped.rows));
    if (drawn == stopped) {
        return stopped;
    }
    check_jpeg_invariant(variant, drawn <= most_jpeg_group_rows, "irem <= 16");
    if (drawn != 0) {
        for (int i = 0; i < count; ++i) {
            complete_component(places[i], i, group_rows_of(i, drawn));
        }
    }
    return drawn;
}

void convert_row_group(const jpeg_variant& variant, const band& mapped)
{
    const jpeg_row_group group = {mapped.base[0], mapped.base[1],
                                  mapped.base[2], mapped.base[k_component],
                                  mapped.drawn,   mapped.drawn >> image_chroma_y_shift};
    variant.convert(group);
}

void blacken_rest(const jpeg_variant& variant, const band& mapped)
{
    for (int i = 0; i < variant.planes && mapped.base[i] != nullptr; ++i) {
        const frame_plane& p = frame_planes[i];
        const uint64_t first = plane_rows(p, mapped.drawn);
        memset(mapped.base[i] + first * *p.stride, p.black,
               (plane_rows(p, mapped.rows) - first) * *p.stride);
    }
}

// --- the loop -----------------------------------------------------------------------------------

// Reads what follows the last row. A frame of its own, as above.
void finish()
{
    if (setjmp(jpeg_stop_jumpto) == 0) {
        jpeg_stop_armed = true;
        jpeg_finish_decompress(jpeg_decompress);
        jpeg_stop_armed = false;
    }
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

// Draws one row group at *row and moves on. False when the loop has to stop.
bool draw_row_group(const jpeg_variant& variant, unsigned char* k_rows, uint64_t* row, band* last)
{
    const auto height = static_cast<uint64_t>(image_height);
    vexa_status_write(static_cast<int>(*row * 100 / height), "Decoding JPEG");
    quickidle_comm();
    if (!row_counters_agree(*row) || (variant.asks_die4_again && DIE4 != 0)) {
        return false;
    }
    band mapped = {};
    mapped.base[k_component] = k_rows;
    if (!map_band(variant, *row, static_cast<uint64_t>(image_buffer_height), &mapped)) {
        return false;
    }
    const uint64_t drawn = read_row_group(variant, mapped, *row);
    mapped.drawn = drawn == stopped ? 0 : drawn;
    *last = mapped;
    if (drawn == stopped) {
        return false;
    }
    if (drawn == 0) {
        fputs("JPEG decode error. Aborting.\n", stderr);
        jpeg_abort_decompress(jpeg_decompress);
        return false;
    }
    convert_row_group(variant, mapped);
    *row += mapped.drawn;
    if (*row >= height) {
        finish();
    }
    return true;
}

} // namespace

void check_jpeg_invariant(const jpeg_variant& variant, bool condition, const char* text)
{
    if (!condition) {
        invariant_failed(variant.name, text);
    }
}

int decode_jpeg_rows(const jpeg_variant& variant, unsigned char* k_rows)
{
    if (start_jpeg_decompress() != 0) {
        return -1;
    }
    const auto buffer_height = static_cast<uint64_t>(image_buffer_height);
    uint64_t row = 0;
    band last = {};
    bool drawing = true;
    while (drawing && DIE4 == 0 && row < buffer_height && row < jpeg_decompress->output_height) {
        drawing = draw_row_group(variant, k_rows, &row, &last);
    }
    blacken_rest(variant, last);
    vexa_status_write(100, "");
    return 0;
}
