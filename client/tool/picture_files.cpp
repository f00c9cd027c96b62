#include "client/tool/picture_files.h"

#include <algorithm>
#include <numeric>

#include <png.h>

#include "client/tool/rgb.h"

namespace {

// --- YUV4MPEG2 ----------------------------------------------------------------------------------

struct y4m_kind {
    const char* tag;
    int x_shift; // chroma subsampling of the file
    int y_shift;
    bool chroma;
    bool alpha;
};

y4m_kind kind_of(const stillimage_picture& picture)
{
    const bool alpha = picture.plane[STILLIMAGE_A] != nullptr;
    if (alpha) {
        return {"C444alpha", 0, 0, true, true};
    }
    if (picture.plane[STILLIMAGE_U] == nullptr) {
        return {"Cmono", 0, 0, false, false};
    }
    if (picture.chroma_x_shift == 1 && picture.chroma_y_shift == 1) {
        return {"C420jpeg", 1, 1, true, false};
    }
    if (picture.chroma_x_shift == 1 && picture.chroma_y_shift == 0) {
        return {"C422", 1, 0, true, false};
    }
    return {"C444", 0, 0, true, false};
}

// Pixel aspect ratio that gives the picture its display aspect ratio.
std::string pixel_aspect(const stillimage_picture& picture)
{
    constexpr int64_t most = INT64_C(1) << 31;
    if (picture.aspect_numerator >= most || picture.aspect_denominator >= most) {
        return "1:1";
    }
    const int64_t across = picture.aspect_numerator * picture.full_height;
    const int64_t down = picture.aspect_denominator * picture.full_width;
    const int64_t common = std::gcd(across, down);
    return std::to_string(across / common) + ":" + std::to_string(down / common);
}

void add_plane(const stillimage_picture& picture, int plane, uint32_t width, uint32_t height,
               int x_repeat, int y_repeat, std::string* file)
{
    const uint8_t* base = picture.plane[plane];
    const uint32_t last_column = base == nullptr ? 0 : picture.plane_width[plane] - 1;
    const uint32_t last_row = base == nullptr ? 0 : picture.plane_height[plane] - 1;
    for (uint32_t y = 0; y < height; ++y) {
        const uint64_t row = std::min(y >> y_repeat, last_row);
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t column = std::min(x >> x_repeat, last_column);
            const uint8_t sample =
                base == nullptr ? 128 : base[row * picture.stride[plane] + column];
            file->push_back(static_cast<char>(sample));
        }
    }
}

void add_chroma(const stillimage_picture& picture, const y4m_kind& kind, std::string* file)
{
    const uint32_t width = (picture.width + (1U << kind.x_shift) - 1) >> kind.x_shift;
    const uint32_t height = (picture.height + (1U << kind.y_shift) - 1) >> kind.y_shift;
    for (const int plane : {STILLIMAGE_U, STILLIMAGE_V}) {
        add_plane(picture, plane, width, height, picture.chroma_x_shift - kind.x_shift,
                  picture.chroma_y_shift - kind.y_shift, file);
    }
}

} // namespace

std::string png_file(const stillimage_picture& picture)
{
    const rgb_picture rgb = to_rgb(picture, true);
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = rgb.width;
    image.height = rgb.height;
    image.format = rgb.channels == 4 ? PNG_FORMAT_RGBA : PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string file(size, '\0');
    if (png_image_write_to_memory(&image, file.data(), &size, 0, rgb.samples.data(), 0, nullptr) ==
        0) {
        return {};
    }
    file.resize(size);
    return file;
}

std::string ppm_file(const stillimage_picture& picture)
{
    const rgb_picture rgb = to_rgb(picture, false);
    std::string file =
        "P6\n" + std::to_string(rgb.width) + " " + std::to_string(rgb.height) + "\n255\n";
    file.append(reinterpret_cast<const char*>(rgb.samples.data()), rgb.samples.size());
    return file;
}

std::string y4m_file(const stillimage_picture& picture)
{
    const y4m_kind kind = kind_of(picture);
    std::string file = "YUV4MPEG2 W" + std::to_string(picture.width) + " H" +
                       std::to_string(picture.height) + " F25:1 Ip A" + pixel_aspect(picture) +
                       " " + kind.tag + " XCOLORRANGE=LIMITED\nFRAME\n";
    add_plane(picture, STILLIMAGE_Y, picture.width, picture.height, 0, 0, &file);
    if (kind.chroma) {
        add_chroma(picture, kind, &file);
    }
    if (kind.alpha) {
        add_plane(picture, STILLIMAGE_A, picture.width, picture.height, 0, 0, &file);
    }
    return file;
}
