#include <utility>

#include <gtest/gtest.h>

#include "client/tool/y4m.h"
#include "tests/unit/client/served_picture.h"

namespace {

// The plane at this size; the shifts say which sample each pixel takes.
std::string plane(const served_picture& served, size_t p, uint32_t width, uint32_t height,
                  unsigned x_shift = 0, unsigned y_shift = 0)
{
    std::string bytes;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            bytes += static_cast<char>(served.at(p, x >> x_shift, y >> y_shift));
        }
    }
    return bytes;
}

std::string header(const std::string& tag, const std::string& pixel_aspect)
{
    return "YUV4MPEG2 W5 H3 F25:1 Ip A" + pixel_aspect + " " + tag + " XCOLORRANGE=LIMITED\n";
}

std::string start(const std::string& tag, const std::string& pixel_aspect)
{
    return header(tag, pixel_aspect) + "FRAME\n";
}

constexpr const char* pixel_16_9 = "16:15"; // (16 * 3) / (9 * 5)

TEST(Y4m, KeepsKnownSubsamplings)
{
    const struct {
        unsigned x_shift, y_shift;
        const char* tag;
        uint32_t width, height;
    } kinds[] = {{0, 0, "C444", 5, 3}, {1, 0, "C422", 3, 3}, {1, 1, "C420jpeg", 3, 2}};
    for (const auto& kind : kinds) {
        const served_picture served(
            {.full_width = 5, .full_height = 3, .x_shift = kind.x_shift, .y_shift = kind.y_shift});
        EXPECT_EQ(y4m_file(served.picture), start(kind.tag, pixel_16_9) + plane(served, 0, 5, 3) +
                                                plane(served, 1, kind.width, kind.height) +
                                                plane(served, 2, kind.width, kind.height));
    }
}

TEST(Y4m, RepeatsChromaOfOtherSubsamplings)
{
    for (const auto& [x, y] : {std::pair{0U, 1U}, {2U, 0U}, {2U, 2U}, {1U, 2U}}) {
        const served_picture served(
            {.full_width = 5, .full_height = 3, .x_shift = x, .y_shift = y});
        EXPECT_EQ(y4m_file(served.picture), start("C444", pixel_16_9) + plane(served, 0, 5, 3) +
                                                plane(served, 1, 5, 3, x, y) +
                                                plane(served, 2, 5, 3, x, y));
    }
}

TEST(Y4m, AlphaIs444)
{
    const served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    EXPECT_EQ(y4m_file(served.picture), start("C444alpha", pixel_16_9) + plane(served, 0, 5, 3) +
                                            plane(served, 1, 5, 3, 1, 1) +
                                            plane(served, 2, 5, 3, 1, 1) + plane(served, 3, 5, 3));
}

TEST(Y4m, MonochromeHasOnePlaneOrGrayChroma)
{
    const served_picture plain({.full_width = 5, .full_height = 3, .chroma = false});
    EXPECT_EQ(y4m_file(plain.picture), start("Cmono", pixel_16_9) + plane(plain, 0, 5, 3));
    const served_picture alpha({.full_width = 5, .full_height = 3, .chroma = false, .alpha = true});
    EXPECT_EQ(y4m_file(alpha.picture), start("C444alpha", pixel_16_9) + plane(alpha, 0, 5, 3) +
                                           std::string(30, '\x80') + plane(alpha, 3, 5, 3));
}

TEST(Y4m, EverySmallSizeHasWholePlanes)
{
    for (uint32_t width = 1; width <= 5; ++width) {
        for (uint32_t height = 1; height <= 5; ++height) {
            const served_picture served({.full_width = width, .full_height = height});
            std::string frame;
            add_y4m_frame(served.picture, y4m_stream_of(served.picture), &frame);
            const uint32_t columns = (width + 1) / 2;
            const uint32_t rows = (height + 1) / 2;
            EXPECT_EQ(frame, "FRAME\n" + plane(served, 0, width, height) +
                                 plane(served, 1, columns, rows) + plane(served, 2, columns, rows));
        }
    }
}

TEST(Y4m, ChromaThatEndsEarlyRepeatsItsLastSample)
{
    served_picture served({.full_width = 5, .full_height = 1});
    served.picture.plane_width[STILLIMAGE_U] = 2; // as in a reduced level
    const std::string file = y4m_file(served.picture);
    const std::string u = file.substr(file.size() - 6, 3);
    EXPECT_EQ(u, plane(served, 1, 2, 1) + static_cast<char>(served.at(1, 1, 0)));
}

TEST(Y4m, OpaquePictureFitsAStreamWithAlpha)
{
    const served_picture clear({.full_width = 5, .full_height = 3, .alpha = true});
    const served_picture opaque({.full_width = 5, .full_height = 3});
    const stillimage_y4m_stream shape = y4m_stream_of(clear.picture);
    ASSERT_TRUE(stillimage_y4m_fits(&opaque.picture, &shape));
    std::string frame;
    add_y4m_frame(opaque.picture, shape, &frame);
    EXPECT_EQ(frame, "FRAME\n" + plane(opaque, 0, 5, 3) + plane(opaque, 1, 5, 3, 1, 1) +
                         plane(opaque, 2, 5, 3, 1, 1) + std::string(15, '\xFF'));
    EXPECT_EQ(y4m_header(opaque.picture, shape, {25, 1}), header("C444alpha", pixel_16_9));
}

TEST(Y4m, PicturesOfAnotherSizeOrKindDoNotFit)
{
    const sample_shape basis = {.full_width = 5, .full_height = 3};
    const served_picture first(basis);
    const stillimage_y4m_stream shape = y4m_stream_of(first.picture);
    EXPECT_TRUE(stillimage_y4m_fits(&first.picture, &shape));
    const sample_shape others[] = {{.full_width = 6, .full_height = 3},
                                   {.full_width = 5, .full_height = 4},
                                   {.full_width = 5, .full_height = 3, .y_shift = 0},
                                   {.full_width = 5, .full_height = 3, .chroma = false},
                                   {.full_width = 5, .full_height = 3, .alpha = true}};
    for (const sample_shape& other : others) {
        const served_picture differing(other);
        EXPECT_FALSE(stillimage_y4m_fits(&differing.picture, &shape));
    }
}

TEST(Y4m, HeaderHasTheRate)
{
    const served_picture served({.full_width = 5, .full_height = 3, .chroma = false});
    EXPECT_EQ(y4m_header(served.picture, y4m_stream_of(served.picture), {30000, 1001}),
              "YUV4MPEG2 W5 H3 F30000:1001 Ip A16:15 Cmono XCOLORRANGE=LIMITED\n");
}

TEST(Y4m, HeaderHasThePixelAspectRatio)
{
    served_picture served({.full_width = 5, .full_height = 3, .chroma = false});
    const auto header_with = [&](int64_t numerator, int64_t denominator) {
        served.picture.aspect_numerator = numerator;
        served.picture.aspect_denominator = denominator;
        return y4m_file(served.picture).substr(0, start("Cmono", "1:1").size());
    };
    EXPECT_EQ(header_with(5, 3), start("Cmono", "1:1"));
    EXPECT_EQ(header_with(INT64_MAX, 1), start("Cmono", "1:1"));
    EXPECT_EQ(header_with(1, INT64_MAX), start("Cmono", "1:1"));
    EXPECT_EQ(header_with(INT32_MAX, 1), start("Cmono", "1:1")); // times 3 / 5
    EXPECT_EQ(header_with(1, 1), start("Cmono", "3:5"));
}

} // namespace
