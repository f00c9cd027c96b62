#include "client/tool/picture_files.h"

#include <png.h>

std::string png_file(const stillimage_picture& picture)
{
    return png_file(to_rgb(picture, true));
}

std::string png_file(const rgb_picture& rgb)
{
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
