#include <cstdio>
#include <vector>

#include <png.h>

#include "bench/large_pictures.h"
#include "bench/photograph.h"

namespace {

constexpr large_picture pictures[] = {
    {"png-rgb", 1.18},     {"png-rgba", 1.18},       {"png-grey16", 1.08},
    {"png-palette", 1.40}, {"png-adam7-rgba", 1.30},
};

struct png_kind {
    int depth;
    int colour_type;
    int interlace;
};

png_kind kind_of(const std::string& name)
{
    if (name == "png-grey16") {
        return {16, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE};
    }
    if (name == "png-palette") {
        return {8, PNG_COLOR_TYPE_PALETTE, PNG_INTERLACE_NONE};
    }
    if (name == "png-rgba") {
        return {8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE};
    }
    if (name == "png-adam7-rgba") {
        return {8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_ADAM7};
    }
    return {8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE};
}

std::vector<unsigned char> draw_palette_row(const photograph& from, const photo_palette& palette,
                                            int y)
{
    std::vector<unsigned char> row;
    row.reserve(large_width);
    for (int x = 0; x < large_width; ++x) {
        row.push_back(large_index(from, palette, x, y));
    }
    return row;
}

// The lower byte is noise, as from a sensor.
std::vector<unsigned char> draw_grey16_row(const photograph& from, int y)
{
    std::vector<unsigned char> row;
    for (int x = 0; x < large_width; ++x) {
        row.push_back(enlarged(from, 1, x, y));
        row.push_back(static_cast<unsigned char>(noise_bits(5, x, y) >> 24));
    }
    return row;
}

std::vector<unsigned char> draw_row(const photograph& from, const photo_palette& palette,
                                    const png_kind& kind, int y)
{
    if (kind.colour_type == PNG_COLOR_TYPE_PALETTE) {
        return draw_palette_row(from, palette, y);
    }
    if (kind.colour_type == PNG_COLOR_TYPE_GRAY) {
        return draw_grey16_row(from, y);
    }
    return draw_large_rows(from, kind.colour_type == PNG_COLOR_TYPE_RGB ? 3 : 4, y, 1);
}

void write_header(png_structp png, png_infop info, const photo_palette& palette,
                  const png_kind& kind)
{
    png_set_IHDR(png, info, large_width, large_height, kind.depth, kind.colour_type, kind.interlace,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (kind.colour_type == PNG_COLOR_TYPE_PALETTE) {
        std::vector<png_color> entries;
        for (size_t i = 0; i < palette.colours.size(); i += 3) {
            const unsigned char* colour = palette.colours.data() + i;
            entries.push_back({colour[0], colour[1], colour[2]});
        }
        png_set_PLTE(png, info, entries.data(), static_cast<int>(entries.size()));
    }
    png_write_info(png, info);
}

} // namespace

std::span<const large_picture> large_pngs()
{
    return pictures;
}

void write_large_png(const std::string& name, const std::string& photograph,
                     const std::string& path)
{
    const auto from = read_photograph(photograph, photo_colours::RGB);
    const photo_palette palette = make_palette(from);
    const png_kind kind = kind_of(name);
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        give_up_drawing("cannot write " + path);
    }
    // No jump is armed, so a library error ends the program.
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    write_header(png, info, palette, kind);
    const int passes = png_set_interlace_handling(png);
    for (int pass = 0; pass < passes; ++pass) {
        for (int y = 0; y < large_height; ++y) { // the library selects the pixels of the pass
            const std::vector<unsigned char> row = draw_row(from, palette, kind, y);
            png_write_row(png, row.data());
        }
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    if (fclose(file) != 0) {
        give_up_drawing("cannot write " + path);
    }
}
