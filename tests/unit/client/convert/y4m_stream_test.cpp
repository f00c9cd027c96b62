// Which arguments the YUV4MPEG2 calls refuse and which sizes they report. y4m_test.cpp tests the
// bytes.
#include <cstring>

#include <gtest/gtest.h>

#include "tests/unit/client/served_picture.h"

namespace {

TEST(ConvertY4m, StreamReportsSizeAndKind)
{
    const struct {
        sample_shape shape;
        uint32_t kind;
        size_t frame;
    } kinds[] = {{{.chroma = false}, STILLIMAGE_Y4M_MONO, 15},
                 {{.x_shift = 1, .y_shift = 1}, STILLIMAGE_Y4M_420, 15 + 2 * 6},
                 {{.x_shift = 1, .y_shift = 0}, STILLIMAGE_Y4M_422, 15 + 2 * 9},
                 {{.x_shift = 0, .y_shift = 0}, STILLIMAGE_Y4M_444, 45},
                 {{.x_shift = 0, .y_shift = 1}, STILLIMAGE_Y4M_444, 45},
                 {{.x_shift = 1, .y_shift = 2}, STILLIMAGE_Y4M_444, 45},
                 {{.alpha = true}, STILLIMAGE_Y4M_444_ALPHA, 60}};
    for (auto [shape, kind, frame] : kinds) {
        shape.full_width = 5;
        shape.full_height = 3;
        const served_picture served(shape);
        stillimage_y4m_stream stream = {};
        ASSERT_EQ(stillimage_y4m_stream_of(&served.picture, &stream), STILLIMAGE_OK);
        EXPECT_EQ(stream.width, 5U);
        EXPECT_EQ(stream.height, 3U);
        EXPECT_EQ(stream.kind, kind);
        EXPECT_EQ(stillimage_y4m_frame_size(&stream), frame + strlen("FRAME\n"));
    }
}

TEST(ConvertY4m, BuffersAreNotOverrun)
{
    const served_picture served({.full_width = 5, .full_height = 3});
    stillimage_y4m_stream stream = {};
    ASSERT_EQ(stillimage_y4m_stream_of(&served.picture, &stream), STILLIMAGE_OK);
    const size_t size = stillimage_y4m_frame_size(&stream);
    std::vector<uint8_t> frame(size);
    EXPECT_EQ(stillimage_y4m_frame(&served.picture, &stream, frame.data(), size - 1),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_y4m_frame(&served.picture, &stream, frame.data(), size), STILLIMAGE_OK);

    char text[256] = "";
    const auto header = [&](size_t room) {
        return stillimage_y4m_header(&served.picture, &stream, 25, 1, text, room);
    };
    ASSERT_EQ(header(sizeof text), STILLIMAGE_OK);
    const size_t length = strlen(text);
    std::vector<char> exact(length + 1);
    EXPECT_EQ(stillimage_y4m_header(&served.picture, &stream, 25, 1, exact.data(), length + 1),
              STILLIMAGE_OK);
    EXPECT_STREQ(exact.data(), text);
    EXPECT_EQ(header(length), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(header(0), STILLIMAGE_ERROR_ARGUMENT);
}

TEST(ConvertY4m, LongestHeaderFits256Bytes)
{
    served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    served.picture.full_width = served.picture.full_height = 1;
    served.picture.aspect_numerator = INT32_MAX;
    served.picture.aspect_denominator = INT32_MAX - 1;
    const stillimage_y4m_stream stream = {INT32_MAX, INT32_MAX, STILLIMAGE_Y4M_444_ALPHA};
    char text[256] = "";
    EXPECT_EQ(
        stillimage_y4m_header(&served.picture, &stream, UINT32_MAX, UINT32_MAX, text, sizeof text),
        STILLIMAGE_OK);
}

TEST(ConvertY4m, FramesThatNoMemoryCanHoldHaveNoSize)
{
    const stillimage_y4m_stream giant = {INT32_MAX, INT32_MAX, STILLIMAGE_Y4M_444_ALPHA};
    EXPECT_EQ(stillimage_y4m_frame_size(&giant), 0U);
    const stillimage_y4m_stream large = {1U << 30, 1U << 30, STILLIMAGE_Y4M_444_ALPHA};
    EXPECT_EQ(stillimage_y4m_frame_size(&large), (UINT64_C(1) << 62) + 6);
}

TEST(ConvertY4m, InvalidArgumentsAreRefused)
{
    const served_picture served({.full_width = 5, .full_height = 3});
    const stillimage_picture& picture = served.picture;
    stillimage_y4m_stream good = {};
    char text[256];
    uint8_t frame[256];
    EXPECT_EQ(stillimage_y4m_stream_of(nullptr, &good), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_y4m_stream_of(&picture, nullptr), STILLIMAGE_ERROR_ARGUMENT);
    ASSERT_EQ(stillimage_y4m_stream_of(&picture, &good), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_y4m_fits(nullptr, &good), 0);
    EXPECT_EQ(stillimage_y4m_fits(&picture, nullptr), 0);
    EXPECT_EQ(stillimage_y4m_frame_size(nullptr), 0U);
    EXPECT_EQ(stillimage_y4m_frame(&picture, nullptr, frame, sizeof frame),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_y4m_frame(&picture, &good, nullptr, sizeof frame),
              STILLIMAGE_ERROR_ARGUMENT);
    const auto header = [&](const stillimage_picture* of, const stillimage_y4m_stream* stream,
                            uint32_t numerator, uint32_t denominator, char* to) {
        return stillimage_y4m_header(of, stream, numerator, denominator, to, sizeof text);
    };
    EXPECT_EQ(header(nullptr, &good, 25, 1, text), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(header(&picture, nullptr, 25, 1, text), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(header(&picture, &good, 0, 1, text), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(header(&picture, &good, 25, 0, text), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(header(&picture, &good, 25, 1, nullptr), STILLIMAGE_ERROR_ARGUMENT);
    const stillimage_y4m_stream bad[] = {
        {0, 3, good.kind}, {5, 0, good.kind}, {5, 3, 0}, {5, 3, 6}};
    for (const stillimage_y4m_stream& stream : bad) {
        EXPECT_EQ(stillimage_y4m_fits(&picture, &stream), 0);
        EXPECT_EQ(stillimage_y4m_frame_size(&stream), 0U);
        EXPECT_EQ(header(&picture, &stream, 25, 1, text), STILLIMAGE_ERROR_ARGUMENT);
    }
}

} // namespace
