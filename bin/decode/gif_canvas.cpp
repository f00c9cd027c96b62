// First a table of 256 pixels is made from the frame's colours. Indices beyond the colour map get
// its first colour; a transparent index that an earlier frame declared gets the cleared pixel.
// Drawing then takes one look-up per pixel, and a comparison when the frame declares a transparent
// index itself.
#include "bin/decode/gif_canvas.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "bin/decode/colour_rules.h"
#include "bin/examine/gif.h"
#include "bin/examine/gif_interlacing.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"

bool gif_last_transparency = false;
unsigned char gif_last_transparent_color = 255;

namespace {

constexpr int index_count = 256;
constexpr int control_bytes = 4;
constexpr unsigned char opaque_alpha = 255;
constexpr size_t rows_between_pumps = 64;

gif_pixel opaque_rgba(const GifColorType& colour)
{
    return {{colour.Red, colour.Green, colour.Blue, opaque_alpha}};
}

gif_pixel opaque_yuva(const GifColorType& colour)
{
    const yuv_sample sample = rgb_to_yuv(colour.Red, colour.Green, colour.Blue);
    return {{sample.y, sample.u, sample.v, opaque_alpha}};
}

struct pixel_table {
    gif_pixel of_index[index_count];
};

// A rectangle inside the screen.
struct screen_area {
    size_t left, top, width, height;
};

unsigned char* pixel_at(const gif_canvas& canvas, size_t row, size_t column)
{
    return canvas.pixels + row * canvas.pitch + column * sizeof(gif_pixel);
}

void fill_row(unsigned char* out, size_t count, gif_pixel pixel)
{
    for (size_t i = 0; i < count; ++i) {
        memcpy(out + i * sizeof pixel, &pixel, sizeof pixel);
    }
}

void fill_area(const gif_canvas& canvas, const screen_area& area, gif_pixel pixel)
{
    for (size_t row = 0; row < area.height; ++row) {
        fill_row(pixel_at(canvas, area.top + row, area.left), area.width, pixel);
        if (!go_on_after_gif_row(row)) {
            return;
        }
    }
}

// --- properties of a frame ----------------------------------------------------------------------

// The frame's own colour map, otherwise the picture's; null when it is empty.
const ColorMapObject* colours_of(const SavedImage& frame)
{
    const ColorMapObject* map =
        frame.ImageDesc.ColorMap != nullptr ? frame.ImageDesc.ColorMap : gif_image->SColorMap;
    return map != nullptr && map->ColorCount > 0 && map->Colors != nullptr ? map : nullptr;
}

const GifColorType& colour_at(const ColorMapObject& map, int index)
{
    return map.Colors[index < map.ColorCount ? index : 0];
}

std::optional<unsigned char> transparent_index(const SavedImage& frame)
{
    std::optional<unsigned char> found;
    for (int i = 0; i < frame.ExtensionBlockCount; ++i) {
        const ExtensionBlock& block = frame.ExtensionBlocks[i];
        if (block.Function == GRAPHICS_EXT_FUNC_CODE && block.ByteCount >= control_bytes &&
            (block.Bytes[0] & 1) != 0) {
            found = block.Bytes[3];
        }
    }
    return found;
}

// The part of the frame that lies on the screen; none when the frame begins outside or is empty.
std::optional<screen_area> visible_area(const GifImageDesc& frame)
{
    if (frame.Left < 0 || frame.Top < 0 || frame.Left >= gif_image->SWidth ||
        frame.Top >= gif_image->SHeight || frame.Width <= 0 || frame.Height <= 0) {
        return std::nullopt;
    }
    return screen_area{static_cast<size_t>(frame.Left), static_cast<size_t>(frame.Top),
                       static_cast<size_t>(std::min(frame.Width, gif_image->SWidth - frame.Left)),
                       static_cast<size_t>(std::min(frame.Height, gif_image->SHeight - frame.Top))};
}

// --- drawing ------------------------------------------------------------------------------------

// Kept as is: when the screen does not start in the background colour, as many of its first rows
// are cleared as the first frame is high, wherever that frame lies.
void prepare_screen(const gif_canvas& canvas, const SavedImage& frame, const ColorMapObject& map,
                    bool transparent)
{
    const auto width = static_cast<size_t>(gif_image->SWidth);
    const auto height = static_cast<size_t>(gif_image->SHeight);
    const int background = gif_image->SBackGroundColor;
    if (gif_image->SColorMap != nullptr && !transparent && map.ColorCount > background) {
        fill_area(canvas, {0, 0, width, height}, canvas.form->opaque(map.Colors[background]));
    } else {
        const auto frame_height = static_cast<size_t>(std::max(frame.ImageDesc.Height, 0));
        clear_gif_rows(canvas, std::min(frame_height, height));
    }
}

pixel_table make_pixel_table(const gif_pixel_form& form, const ColorMapObject& map,
                             bool declares_transparent)
{
    pixel_table table;
    for (int index = 0; index < index_count; ++index) {
        table.of_index[index] = form.opaque(colour_at(map, index));
    }
    if (!declares_transparent && gif_last_transparency) {
        table.of_index[gif_last_transparent_color] = form.cleared;
    }
    return table;
}

void draw_row(unsigned char* out, const unsigned char* raster, size_t count,
              const pixel_table& table)
{
    for (size_t i = 0; i < count; ++i) {
        memcpy(out + i * sizeof(gif_pixel), &table.of_index[raster[i]], sizeof(gif_pixel));
    }
}

void draw_row_through(unsigned char* out, const unsigned char* raster, size_t count,
                      const pixel_table& table, unsigned char transparent)
{
    for (size_t i = 0; i < count; ++i) {
        if (raster[i] != transparent) {
            memcpy(out + i * sizeof(gif_pixel), &table.of_index[raster[i]], sizeof(gif_pixel));
        }
    }
}

void draw_raster(const gif_canvas& canvas, const SavedImage& frame, const screen_area& area,
                 const pixel_table& table, std::optional<unsigned char> transparent)
{
    const auto width = static_cast<size_t>(frame.ImageDesc.Width);
    const auto height = static_cast<unsigned>(frame.ImageDesc.Height);
    for (unsigned row = 0; row < height; ++row) {
        const unsigned y = frame.ImageDesc.Interlace ? gif_interlacing_function(row, height) : row;
        if (y < area.height) {
            unsigned char* out = pixel_at(canvas, area.top + y, area.left);
            const unsigned char* raster = frame.RasterBits + row * width;
            if (transparent) {
                draw_row_through(out, raster, area.width, table, *transparent);
            } else {
                draw_row(out, raster, area.width, table);
            }
        }
        if (!go_on_after_gif_row(row)) {
            return;
        }
    }
}

} // namespace

const gif_pixel_form gif_rgba_form = {{{0, 0, 0, 0}}, opaque_rgba};
const gif_pixel_form gif_yuva_form = {{{16, 128, 128, 0}}, opaque_yuva};

bool go_on_after_gif_row(size_t row)
{
    if (row % rows_between_pumps == rows_between_pumps - 1) {
        quickidle_comm();
    }
    return DIE4 == 0;
}

void clear_gif_rows(const gif_canvas& canvas, size_t rows)
{
    fill_area(canvas, {0, 0, canvas.pitch / sizeof(gif_pixel), rows}, canvas.form->cleared);
}

void draw_gif_frame(const gif_canvas& canvas, const SavedImage& frame, bool first)
{
    const ColorMapObject* map = colours_of(frame);
    if (map == nullptr) {
        return;
    }
    const std::optional<unsigned char> transparent = transparent_index(frame);
    if (transparent) {
        gif_last_transparency = true;
        gif_last_transparent_color = *transparent;
    }
    if (first) {
        prepare_screen(canvas, frame, *map, transparent.has_value());
    }
    const std::optional<screen_area> area = visible_area(frame.ImageDesc);
    if (area && frame.RasterBits != nullptr) {
        draw_raster(canvas, frame, *area,
                    make_pixel_table(*canvas.form, *map, transparent.has_value()), transparent);
    }
}

void restore_gif_background(const gif_canvas& canvas, const SavedImage& frame)
{
    const ColorMapObject* map = colours_of(frame);
    const std::optional<screen_area> area = visible_area(frame.ImageDesc);
    if (map == nullptr || !area) {
        return;
    }
    const gif_pixel background =
        transparent_index(frame)
            ? canvas.form->cleared
            : canvas.form->opaque(colour_at(*map, gif_image->SBackGroundColor));
    fill_area(canvas, *area, background);
}

void gif_to_RGBA(unsigned char* rgba, unsigned long pitch, SavedImage* image, bool first)
{
    draw_gif_frame({rgba, pitch, &gif_rgba_form}, *image, first);
}

void gif_RGBA_bgcolor(unsigned char* rgba, unsigned long pitch, SavedImage* image)
{
    restore_gif_background({rgba, pitch, &gif_rgba_form}, *image);
}

void reset_gif_canvas()
{
    gif_last_transparency = false;
    gif_last_transparent_color = 255;
}
