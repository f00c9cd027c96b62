#include <vector>

#include <webp/encode.h>

#include "bench/large_pictures.h"
#include "bench/photograph.h"

namespace {

constexpr large_picture pictures[] = {
    {"webp-lossy", 1.12},
    {"webp-lossless", 1.10},
    {"webp-lossy-alpha", 1.12},
};

constexpr float quality = 85;
constexpr int quick_lossless = 1;          // of the levels 0 .. 9
constexpr size_t max_file_size = 0xFFFFFF; // that the worker accepts

WebPConfig settings_of(const std::string& name)
{
    WebPConfig settings;
    if (WebPConfigPreset(&settings, WEBP_PRESET_PHOTO, quality) == 0 ||
        (name == "webp-lossless" && WebPConfigLosslessPreset(&settings, quick_lossless) == 0)) {
        give_up_drawing("WebP settings");
    }
    return settings;
}

void import_pixels(const std::string& name, const std::string& path, WebPPicture* picture)
{
    const auto from = read_photograph(path, photo_colours::RGB);
    picture->width = large_width;
    picture->height = large_height;
    const bool alpha = name == "webp-lossy-alpha";
    const int channels = alpha ? 4 : 3;
    // Noise hardly compresses without loss, and the file would be larger than the worker accepts.
    const int noise_levels = picture->use_argb != 0 ? 1 : camera_noise;
    const std::vector<unsigned char> pixels =
        draw_large_rows(from, channels, 0, large_height, noise_levels);
    const int stride = large_width * channels;
    if ((alpha ? WebPPictureImportRGBA(picture, pixels.data(), stride)
               : WebPPictureImportRGB(picture, pixels.data(), stride)) == 0) {
        give_up_drawing("no memory for " + name);
    }
}

} // namespace

std::span<const large_picture> large_webps()
{
    return pictures;
}

void write_large_webp(const std::string& name, const std::string& photograph,
                      const std::string& path)
{
    const WebPConfig settings = settings_of(name);
    WebPPicture picture;
    WebPMemoryWriter file;
    WebPMemoryWriterInit(&file);
    if (WebPPictureInit(&picture) == 0) {
        give_up_drawing("WebP picture");
    }
    picture.use_argb = settings.lossless;
    picture.writer = WebPMemoryWrite;
    picture.custom_ptr = &file;
    import_pixels(name, photograph, &picture);
    if (WebPEncode(&settings, &picture) == 0 || file.size > max_file_size) {
        give_up_drawing("cannot make " + name);
    }
    write_drawn_file(path, file.mem, file.size);
    WebPMemoryWriterClear(&file);
    WebPPictureFree(&picture);
}
