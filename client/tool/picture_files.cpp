#include "client/tool/picture_files.h"

namespace {

std::string taken_over(uint8_t* file, size_t size)
{
    std::string result(reinterpret_cast<const char*>(file), size);
    stillimage_free(file);
    return result;
}

} // namespace

std::string png_file(const stillimage_picture& picture)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    stillimage_picture_to_png(&picture, &file, &size);
    return taken_over(file, size);
}

std::string png_file(const rgb_picture& rgb)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    stillimage_pixels_to_png(rgb.channels == 4 ? STILLIMAGE_RGBA32 : STILLIMAGE_RGB24, rgb.width,
                             rgb.height, rgb.samples.data(), size_t{rgb.width} * rgb.channels,
                             &file, &size);
    return taken_over(file, size);
}

std::string ppm_file(const stillimage_picture& picture)
{
    const rgb_picture rgb = to_rgb(picture, false);
    std::string file =
        "P6\n" + std::to_string(rgb.width) + " " + std::to_string(rgb.height) + "\n255\n";
    file.append(reinterpret_cast<const char*>(rgb.samples.data()), rgb.samples.size());
    return file;
}
