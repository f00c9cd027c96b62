#include "client/tool/picture_files.h"

#include "client/products.h"

namespace {

// Frees `file`, which is the library's memory.
std::string copy_and_free(uint8_t* file, size_t size)
{
    std::string result(reinterpret_cast<const char*>(file), size);
    stillimage_free(file);
    return result;
}

} // namespace

rgb_picture to_rgb(const stillimage_picture& picture, bool keep_alpha)
{
    const bool alpha = keep_alpha && picture.plane[STILLIMAGE_A] != nullptr;
    rgb_picture rgb = {picture.width, picture.height, alpha ? 4U : 3U, {}};
    const size_t row_bytes = product_of(rgb.width, rgb.channels);
    rgb.samples.resize(product_of(row_bytes, rgb.height));
    stillimage_picture_to_pixels(&picture, alpha ? STILLIMAGE_RGBA32 : STILLIMAGE_RGB24, rgb.width,
                                 rgb.height, rgb.samples.data(), row_bytes);
    return rgb;
}

std::string png_file(const stillimage_picture& picture)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    stillimage_picture_to_png(&picture, &file, &size);
    return copy_and_free(file, size);
}

std::string png_file(const rgb_picture& rgb)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    stillimage_pixels_to_png(rgb.channels == 4 ? STILLIMAGE_RGBA32 : STILLIMAGE_RGB24, rgb.width,
                             rgb.height, rgb.samples.data(), size_t{rgb.width} * rgb.channels,
                             &file, &size);
    return copy_and_free(file, size);
}

std::string ppm_file(const stillimage_picture& picture)
{
    const rgb_picture rgb = to_rgb(picture, false);
    std::string file =
        "P6\n" + std::to_string(rgb.width) + " " + std::to_string(rgb.height) + "\n255\n";
    file.append(reinterpret_cast<const char*>(rgb.samples.data()), rgb.samples.size());
    return file;
}
