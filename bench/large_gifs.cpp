#include <array>
#include <vector>

#include <gif_lib.h>

#include "bench/large_pictures.h"
#include "bench/photograph.h"

namespace {

constexpr double gif_goal = 1.50;
constexpr double gif_pyramid_goal = 12;

constexpr large_picture pictures[] = {
    {"gif-1920x1080", gif_goal, gif_pyramid_goal},
    {"gif-500x500", gif_goal, gif_pyramid_goal},
};

struct animation {
    int width;
    int height;
    int frames;
};

constexpr int pan = 8;   // pixels per frame
constexpr int delay = 4; // hundredths of a second

animation animation_of(const std::string& name)
{
    return name == "gif-500x500" ? animation{500, 500, 60} : animation{1920, 1080, 20};
}

// Allocated by the library; the caller frees it.
ColorMapObject* make_colour_map(const photo_palette& palette)
{
    std::array<GifColorType, 256> map = {};
    for (size_t i = 0; i < map.size(); ++i) {
        const unsigned char* colour = palette.colours.data() + 3 * i;
        map[i] = {colour[0], colour[1], colour[2]};
    }
    return GifMakeMapObject(map.size(), map.data());
}

bool put_frame(GifFileType* gif, const photograph& from, const photo_palette& palette,
               const animation& what, int frame)
{
    std::array<unsigned char, 4> control = {0, delay, 0, 0}; // no transparency, no disposal
    if (EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, control.size(), control.data()) != GIF_OK ||
        EGifPutImageDesc(gif, 0, 0, what.width, what.height, false, nullptr) != GIF_OK) {
        return false;
    }
    std::vector<GifPixelType> row(static_cast<size_t>(what.width));
    for (int y = 0; y < what.height; ++y) {
        for (int x = 0; x < what.width; ++x) {
            row[static_cast<size_t>(x)] = large_index(from, palette, x + frame * pan, y);
        }
        if (EGifPutLine(gif, row.data(), what.width) != GIF_OK) {
            return false;
        }
    }
    return true;
}

bool put_animation(GifFileType* gif, const photograph& from, const animation& what)
{
    const photo_palette palette = make_palette(from);
    ColorMapObject* map = make_colour_map(palette);
    EGifSetGifVersion(gif, true);
    bool good = EGifPutScreenDesc(gif, what.width, what.height, 8, 0, map) == GIF_OK;
    for (int frame = 0; frame < what.frames && good; ++frame) {
        good = put_frame(gif, from, palette, what, frame);
    }
    GifFreeMapObject(map);
    return good;
}

} // namespace

std::span<const large_picture> large_gifs()
{
    return pictures;
}

void write_large_gif(const std::string& name, const std::string& photograph,
                     const std::string& path)
{
    const auto from = read_photograph(photograph, photo_colours::RGB);
    GifFileType* gif = EGifOpenFileName(path.c_str(), false, nullptr);
    if (gif == nullptr || !put_animation(gif, from, animation_of(name)) ||
        EGifCloseFile(gif, nullptr) != GIF_OK) {
        give_up_drawing("cannot write " + path);
    }
}
