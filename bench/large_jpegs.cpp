#include <cstdio>
#include <vector>

#include "bench/large_pictures.h"
#include "bench/photograph.h"
#include "tests/support/jpeg_writer.h"

namespace {

constexpr int quality = 88;

constexpr large_picture pictures[] = {
    {"jpeg-420", 1.10},         {"jpeg-422", 1.10},  {"jpeg-444", 1.10},  {"jpeg-grey", 1.00},
    {"jpeg-progressive", 1.12}, {"jpeg-cmyk", 1.20}, {"jpeg-ycck", 1.20},
};

jpeg_writer::picture describe(const std::string& name)
{
    if (name == "jpeg-grey") {
        return jpeg_writer::grey(large_width, large_height);
    }
    if (name == "jpeg-cmyk" || name == "jpeg-ycck") {
        return jpeg_writer::four(name == "jpeg-cmyk" ? JCS_CMYK : JCS_YCCK, large_width,
                                 large_height, {1, 1});
    }
    jpeg_writer::factors luma = {2, 2};
    if (name == "jpeg-422") {
        luma = {2, 1};
    } else if (name == "jpeg-444") {
        luma = {1, 1};
    }
    jpeg_writer::picture what = jpeg_writer::ycbcr(large_width, large_height, luma);
    what.progressive = name == "jpeg-progressive";
    return what;
}

} // namespace

std::span<const large_picture> large_jpegs()
{
    return pictures;
}

void write_large_jpeg(const std::string& name, const std::string& photograph,
                      const std::string& path)
{
    jpeg_writer::picture what = describe(name);
    const auto from = read_photograph(photograph, name == "jpeg-cmyk" ? photo_colours::RGB
                                                                      : photo_colours::YCBCR);
    what.quality = quality;
    what.sample = [&](int component, int x, int y) -> unsigned char {
        if (component == 3) { // little black ink, mainly in the shadows
            return static_cast<unsigned char>(192 + enlarged(from, 0, x, y) / 4);
        }
        const bool subsampled = component != 0;
        const int step_x = subsampled ? what.sampling[0].h : 1;
        const int step_y = subsampled ? what.sampling[0].v : 1;
        return enlarged(from, component, x * step_x, y * step_y);
    };
    const jpeg_writer::file_bytes bytes = jpeg_writer::write(what);
    write_drawn_file(path, bytes.data(), bytes.size());
}
