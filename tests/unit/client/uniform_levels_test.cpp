// Pictures of one colour, through the worker's own decoders and pyramid: clients see that colour in
// every level. By the filter's rule the last column of a level may include what lies behind the
// last column of the level above it. Rows have no such exception.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "bin/examine/examine_file.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "bin/vexa_stillimage.h"
#include "client/scanline_record.h"
#include "platform/cnb.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

using file_bytes = std::vector<unsigned char>;

constexpr int tolerance = 3; // lossy compression does not keep a colour exactly

file_bytes red_jpeg(int width, int height, jpeg_writer::factors luma)
{
    jpeg_writer::picture picture = jpeg_writer::ycbcr(width, height, luma);
    picture.sample = [](int component, int, int) -> unsigned char {
        constexpr unsigned char red[] = {76, 85, 255};
        return red[component];
    };
    return jpeg_writer::write(picture);
}

file_bytes repeated(const file_bytes& pixel, int width, int height)
{
    file_bytes pixels;
    for (int i = 0; i < width * height; ++i) {
        pixels.insert(pixels.end(), pixel.begin(), pixel.end());
    }
    return pixels;
}

const file_bytes red = {255, 0, 0};
const file_bytes red_opaque = {255, 0, 0, 255};
const file_bytes red_faint = {255, 0, 0, 200};

file_bytes red_png(int width, int height)
{
    png_spec png = {.width = static_cast<uint32_t>(width), .height = static_cast<uint32_t>(height)};
    png.colour_type = 6;
    for (int y = 0; y < height; ++y) {
        const file_bytes row = repeated(red_faint, width, 1);
        png.rows.push_back(0);
        png.rows.insert(png.rows.end(), row.begin(), row.end());
    }
    return write_png(png);
}

file_bytes red_gif(int width, int height)
{
    const auto columns = static_cast<unsigned>(width);
    const auto rows = static_cast<unsigned>(height);
    gif_spec gif = {.width = columns, .height = rows, .palette = {{255, 0, 0}, {0, 0, 255}}};
    gif.frames = {{.width = columns, .height = rows, .indices = repeated({0}, width, height)}};
    return write_gif(gif);
}

file_bytes red_tiff(int width, int height)
{
    tiff_spec tiff = plain_tiff(static_cast<uint32_t>(width), static_cast<uint32_t>(height), 3, 2);
    tiff.strips = {repeated(red, width, height)};
    return write_tiff(tiff);
}

// The greatest differences of a plane's samples from `colour`: in the last column, and in all
// others.
struct distance {
    int last_column = 0;
    int others = 0;
};

distance furthest(const stillimage_picture& level, int plane, int colour)
{
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    distance found;
    for (uint32_t y = 0; y < level.height; ++y) {
        const uint32_t row =
            std::min(y >> (chroma ? level.chroma_y_shift : 0), level.plane_height[plane] - 1);
        for (uint32_t x = 0; x < level.plane_width[plane]; ++x) {
            const uint8_t seen = level.plane[plane][size_t{row} * level.stride[plane] + x];
            int& kept = x + 1 == level.plane_width[plane] ? found.last_column : found.others;
            kept = std::max(kept, std::abs(seen - colour));
        }
    }
    return found;
}

class UniformLevels : public RunFixture {
protected:
    void open(const file_bytes& file)
    {
        free_all();
        scripted::reset();
        reset_image_state();
        reset_layout();
        reset_mipmaps();
        scripted::set_picture(file);
        ASSERT_EQ(examine_file(), 0);
        layout_full_size();
        layout_mipmaps();
        scripted::provide_buffer(image_decoded_size);
        ASSERT_EQ(build_picture_records(), 0);
        decode_picture();
        generate_all_mipmaps();
        printed();
    }

    static stillimage_picture picture_of(const mipmap_image& record)
    {
        comm_protocol::frame message;
        message.buffer = image_cnb_buffer;
        message.area_size = image_decoded_size;
        message.scanline_offset = record.scanline_data_offset;
        message.scanline_size = record.scanline_data_size;
        message.frame_number = 1;
        message.width = image_width;
        message.height = image_height;
        stillimage_picture picture = {};
        std::string reason;
        EXPECT_TRUE(describe_picture(scripted::buffer() + message.scanline_offset,
                                     message.scanline_size, message, scripted::buffer(), &picture,
                                     &reason))
            << reason;
        return picture;
    }

    // `last_chroma` is the greatest error of subsampled chroma in the last column. `padding` is the
    // share of the padding in a sample of the last column.
    static void expect_level(const stillimage_picture& full, const stillimage_picture& level,
                             int last_chroma, double padding)
    {
        constexpr int behind[STILLIMAGE_PLANES] = {16, 128, 128, 0};
        for (int p = 0; p < STILLIMAGE_PLANES; ++p) {
            if (full.plane[p] == nullptr) {
                continue;
            }
            const int colour = full.plane[p][0];
            const distance found = furthest(level, p, colour);
            EXPECT_LE(found.others, tolerance) << "plane " << p;
            const bool subsampled =
                (p == STILLIMAGE_U || p == STILLIMAGE_V) && full.chroma_x_shift != 0;
            const double last = tolerance + padding * std::abs(colour - behind[p]);
            EXPECT_LE(found.last_column, subsampled ? last_chroma : last) << "plane " << p;
        }
    }

    void expect_one_colour(const file_bytes& file, int last_chroma = tolerance)
    {
        open(file);
        const stillimage_picture full = picture_of(main_image_mipmap);
        expect_level(full, full, tolerance, 0);
        for (int i = 0; i < mipmaps; ++i) {
            // Right of an odd width's last column, the filter takes a quarter from the padding.
            // Levels below take it again, at most half in all.
            const bool padded = image_width % (2 << i) != 0;
            const double padding = !padded ? 0 : i == 0 ? 0.25 : 0.5;
            expect_level(full, picture_of(mipmap[i]), last_chroma, padding);
            ASSERT_FALSE(HasFailure())
                << image_width << " x " << image_height << ", level " << i << " of format "
                << image_file_type << " in " << +image_chroma_x_shift << +image_chroma_y_shift;
        }
    }

    // 200 sizes, odd in one or both directions.
    template <typename Work>
    static void for_each_size(Work work)
    {
        for (int i = 0; i < 200 && !HasFatalFailure(); ++i) {
            const int width = 33 + i * 29 % 257;
            const int height = 33 + i * 31 % 151;
            work(i % 3 == 0 ? width : width | 1, i % 3 == 1 ? height : height | 1);
        }
    }

    static std::vector<uint8_t> rgb_of(const stillimage_picture& picture)
    {
        const size_t stride = size_t{3} * picture.width;
        std::vector<uint8_t> rgb(stride * picture.height);
        EXPECT_EQ(stillimage_picture_to_pixels(&picture, STILLIMAGE_RGB24, picture.width,
                                               picture.height, rgb.data(), stride),
                  STILLIMAGE_OK);
        return rgb;
    }
};

TEST_F(UniformLevels, OfJpegsOfEverySubsampling)
{
    for_each_size([this](int width, int height) {
        for (const jpeg_writer::factors luma :
             {jpeg_writer::factors{1, 1}, {2, 1}, {1, 2}, {2, 2}}) {
            expect_one_colour(red_jpeg(width, height, luma));
        }
    });
}

// The padding of these pictures is grey by rule; at least a sixteenth of it enters the last column.
TEST_F(UniformLevels, OfWebpsWithAndWithoutAlpha)
{
    constexpr int eighth_of_red = (240 - 128) / 8;
    for_each_size([this](int width, int height) {
        expect_one_colour(lossless_webp(width, height, repeated(red_faint, width, height)),
                          eighth_of_red);
        expect_one_colour(lossy_webp(width, height, repeated(red_opaque, width, height), 80),
                          eighth_of_red);
    });
}

TEST_F(UniformLevels, OfPicturesWhoseChromaIsNotSubsampled)
{
    for_each_size([this](int width, int height) {
        expect_one_colour(red_png(width, height));
        expect_one_colour(red_gif(width, height));
        expect_one_colour(red_tiff(width, height));
    });
}

TEST_F(UniformLevels, WhiteWebpOfAnOddLevelHeightIsWhiteInItsLastRow)
{
    open(lossless_webp(1000, 1038, file_bytes(size_t{1000} * 1038 * 4, 255)));
    const stillimage_picture level = picture_of(mipmap[0]);
    ASSERT_EQ(level.height, 519U);
    EXPECT_EQ(rgb_of(level), std::vector<uint8_t>(size_t{500} * 519 * 3, 255));
}

TEST_F(UniformLevels, RedJpegOfAnOddLevelHeightIsRedInItsLastRow)
{
    open(red_jpeg(160, 1552, {2, 2}));
    const stillimage_picture level = picture_of(mipmap[3]);
    ASSERT_EQ(level.width, 10U);
    ASSERT_EQ(level.height, 97U);
    const std::vector<uint8_t> rgb = rgb_of(level);
    EXPECT_GT(rgb[0], 250);
    EXPECT_TRUE(std::equal(rgb.begin() + 3, rgb.end(), rgb.begin()));
}

} // namespace
