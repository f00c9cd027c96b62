// The decoder, from the opened picture to the frame buffer.
#include <csignal>
#include <cstdlib>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/gif.h"
#include "bin/decode/gif_canvas.h"
#include "bin/decode/planes.h"
#include "bin/examine/gif.h"
#include "bin/examine/gif_interlacing.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/decode/gif_fixture.h"

using testing::Each;
using testing::EndsWith;

// Fails allocations of timeline entries: the n-th throwing allocation of at least `timeline_entry`
// bytes.
namespace {

int failing_new = 0;
constexpr size_t timeline_entry = sizeof(std::map<uint64_t, uint64_t>::value_type);

} // namespace

extern "C" {
void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size);
void* __wrap__Znwm(size_t size)
{
    if (failing_new > 0 && size >= timeline_entry && --failing_new == 0) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}
}

namespace {

using file_bytes = std::vector<unsigned char>;

const std::vector<gif_colour> four_colours = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
constexpr shown_pixel black = {16, 128, 128, 255};
constexpr shown_pixel red = {81, 90, 239, 255};
constexpr shown_pixel green = {144, 54, 34, 255};
constexpr shown_pixel blue = {40, 239, 110, 255};
constexpr shown_pixel cleared = {16, 128, 128, 0};

gif_frame_spec with_control(gif_frame_spec frame, gif_control_spec control)
{
    frame.control = control;
    return frame;
}

gif_spec screen_of(unsigned width, unsigned height, std::vector<gif_frame_spec> frames)
{
    return {.width = width, .height = height, .palette = four_colours, .frames = std::move(frames)};
}

class DecodeGif : public gif_test {
protected:
    void open_frames(unsigned width, unsigned height, std::vector<gif_frame_spec> frames)
    {
        file = write_gif(screen_of(width, height, std::move(frames)));
        open(file);
    }

    file_bytes file;
};

// --- timeline -----------------------------------------------------------------------------------

using timeline = std::map<uint64_t, uint64_t>;

TEST_F(DecodeGif, SingleFrameLastsTen)
{
    open_frames(1, 1, {plain_frame(0, 0, 1, 1, 1)});
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}}));
    EXPECT_EQ(image_mapping_total, 10U);
    EXPECT_EQ(pixel_of(0, 0, 0), red);
}

TEST_F(DecodeGif, DelaysAddUpToStartTimes)
{
    const gif_frame_spec dot = plain_frame(0, 0, 1, 1, 1);
    open_frames(1, 1,
                {with_control(dot, {.delay = 50}), with_control(dot, {.delay = 0}),
                 with_control(dot, {.delay = 20})});
    image_mapping_total = 0;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}, {50, 1}, {60, 2}}));
    EXPECT_EQ(image_mapping_total, 80U);
}

TEST_F(DecodeGif, DelaysOfZeroAndOneAreTen)
{
    const gif_frame_spec dot = plain_frame(0, 0, 1, 1, 1);
    open_frames(1, 1,
                {with_control(dot, {.delay = 0}), with_control(dot, {.delay = 1}),
                 with_control(dot, {.delay = 2}), with_control(dot, {.delay = 65535}), dot});
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}, {10, 1}, {20, 2}, {22, 3}, {65557, 4}}));
    EXPECT_EQ(image_mapping_total, 65567U);
}

// --- composing ----------------------------------------------------------------------------------

TEST_F(DecodeGif, ScreenStartsInTheBackgroundColour)
{
    gif_spec spec = screen_of(3, 1, {plain_frame(1, 0, 1, 1, 1)});
    spec.background = 3;
    open(write_gif(spec));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(0, 0, 0), blue);
    EXPECT_EQ(pixel_of(0, 1, 0), red);
    EXPECT_EQ(pixel_of(0, 2, 0), blue);
    EXPECT_EQ(pixel_of(0, 3, 0), cleared); // padding
    EXPECT_EQ(pixel_of(0, 15, 0), cleared);
    EXPECT_EQ(pixel_of(0, 0, 1), (shown_pixel{0, 0, 0, 0})); // rows below the picture
}

TEST_F(DecodeGif, TransparentFirstFrameLeavesClearedPixels)
{
    gif_frame_spec frame = {.width = 3, .height = 1};
    frame.control = gif_control_spec{.transparent = 2};
    frame.indices = {1, 2, 3};
    open_frames(4, 2, {frame});
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(0, 0, 0), red);
    EXPECT_EQ(pixel_of(0, 1, 0), cleared);
    EXPECT_EQ(pixel_of(0, 2, 0), blue);
    EXPECT_EQ(pixel_of(0, 3, 0), cleared);
    EXPECT_EQ(pixel_of(0, 3, 1), cleared);
}

TEST_F(DecodeGif, TransparentIndexIsCarriedIntoFramesWithoutOne)
{
    const gif_frame_spec first = with_control(plain_frame(0, 0, 2, 1, 1), {.transparent = 3});
    open_frames(2, 1, {first, plain_frame(0, 0, 1, 1, 3), plain_frame(0, 0, 2, 1, 2)});
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(1, 0, 0), cleared);
    EXPECT_EQ(pixel_of(1, 1, 0), red);
    EXPECT_EQ(pixel_of(2, 0, 0), green);
}

TEST_F(DecodeGif, DisposalChoosesWhatTheNextFrameStartsFrom)
{
    struct {
        unsigned disposal;
        shown_pixel next;
    } const cases[] = {{0, green}, {1, green}, {2, blue},  {3, red},
                       {4, green}, {5, green}, {6, green}, {7, green}};
    for (const auto& [disposal, next] : cases) {
        reset_for_gif();
        gif_spec spec = screen_of(2, 1,
                                  {plain_frame(0, 0, 2, 1, 1),
                                   with_control(plain_frame(0, 0, 1, 1, 2), {.disposal = disposal}),
                                   plain_frame(1, 0, 1, 1, 0)});
        spec.background = 3;
        open(write_gif(spec));
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(pixel_of(1, 0, 0), green) << disposal;
        EXPECT_EQ(pixel_of(1, 1, 0), red) << disposal;
        EXPECT_EQ(pixel_of(2, 0, 0), next) << disposal;
        EXPECT_EQ(pixel_of(2, 1, 0), black) << disposal;
    }
}

TEST_F(DecodeGif, FirstFrameIsRestoredToAClearedCanvas)
{
    gif_spec spec = screen_of(
        2, 1,
        {with_control(plain_frame(0, 0, 2, 1, 1), {.disposal = 3}), plain_frame(1, 0, 1, 1, 2)});
    open(write_gif(spec));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(0, 0, 0), red);
    EXPECT_EQ(pixel_of(1, 0, 0), cleared); // the canvas before the background was drawn
    EXPECT_EQ(pixel_of(1, 1, 0), green);
}

TEST_F(DecodeGif, FrameRightOfTheScreenKeepsItsUnitAndTime)
{
    open_frames(
        2, 2, {plain_frame(0, 0, 2, 2, 1), plain_frame(2, 0, 1, 1, 2), plain_frame(0, 0, 1, 1, 3)});
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(1, 0, 0), red);
    EXPECT_EQ(pixel_of(2, 0, 0), blue);
    EXPECT_EQ(image_mapping_points.size(), 3U);
}

TEST_F(DecodeGif, FrameWithoutARasterKeepsItsUnitAndTime)
{
    file = write_gif(screen_of(2, 1, {plain_frame(0, 0, 2, 1, 1), plain_frame(0, 0, 0, 1, 2)}));
    open(file);
    ASSERT_EQ(image_decoded_frames, 2U);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel_of(1, 0, 0), red);
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}, {10, 1}}));
}

TEST_F(DecodeGif, FrameWithInvalidCodesIsNotCounted)
{
    file = write_gif(screen_of(1, 1, {plain_frame(0, 0, 1, 1, 1)}));
    file_bytes second = file;
    second.erase(second.begin(), second.begin() + 13 + 12); // without the screen and the palette
    second[10] = 9;                                         // code size
    file.insert(file.end() - 1, second.begin(), second.end());
    expect_drawn_by_rules(file);
    EXPECT_EQ(image_decoded_frames, 1U);
}

TEST_F(DecodeGif, LargestScreensAreClippedAtTheirEdge)
{
    for (const auto& [width, height] : {std::pair{65535U, 1U}, {1U, 65535U}}) {
        gif_frame_spec beyond = plain_frame(width - 1, height - 1, 65535, 2, 2);
        expect_drawn_by_rules(
            write_gif(screen_of(width, height, {plain_frame(0, 0, 1, 1, 1), beyond})));
        EXPECT_EQ(pixel_of(1, width - 1, height - 1), green);
    }
}

TEST_F(DecodeGif, FirstFrameHigherThanTheScreen)
{
    expect_drawn_by_rules(
        write_gif(screen_of(8, 8,
                            {with_control(plain_frame(0, 0, 8, 60000, 1), {.transparent = 1}),
                             plain_frame(0, 0, 3, 60000, 2)})));
}

TEST_F(DecodeGif, InterlacedFrameEqualsItsPlainCounterpart)
{
    for (unsigned height = 1; height <= 16; ++height) {
        gif_frame_spec plain = {.width = 3, .height = height};
        gif_frame_spec interlaced = {.width = 3, .height = height, .interlaced = true};
        for (unsigned row = 0; row < height; ++row) {
            plain.indices.insert(plain.indices.end(), 3, static_cast<unsigned char>(row % 4));
            const unsigned there = gif_interlacing_function(row, height);
            interlaced.indices.insert(interlaced.indices.end(), 3,
                                      static_cast<unsigned char>(there % 4));
        }
        expect_drawn_by_rules(write_gif(screen_of(3, height, {plain})));
        const file_bytes twin = allocation();
        expect_drawn_by_rules(write_gif(screen_of(3, height, {interlaced})));
        EXPECT_EQ(allocation(), twin) << height;
    }
}

TEST_F(DecodeGif, WithoutColoursEverythingIsCleared)
{
    gif_spec spec = screen_of(2, 2, {plain_frame(0, 0, 2, 2, 1)});
    spec.palette.clear();
    expect_drawn_by_rules(write_gif(spec));
    EXPECT_EQ(pixel_of(0, 1, 1), cleared);
    EXPECT_EQ(image_mapping_total, 10U);
}

// --- failures -----------------------------------------------------------------------------------

class FailingGif : public DecodeGif {
protected:
    void SetUp() override
    {
        DecodeGif::SetUp();
        open_frames(20, 20,
                    {plain_frame(0, 0, 20, 20, 1),
                     with_control(plain_frame(2, 2, 9, 9, 2), {.disposal = 3}),
                     with_control(plain_frame(1, 1, 9, 9, 3), {.disposal = 3})});
    }

    void TearDown() override
    {
        failing_new = 0;
        DecodeGif::TearDown();
    }

    void expect_frames(size_t frames) const
    {
        EXPECT_TRUE(allocation() == draw_gif_literally(file, frames)) << frames;
    }
};

TEST_F(FailingGif, CanvasAllocationFails)
{
    failing_calls::plan.calloc = 1;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "Unable to allocate RGBA frame\n");
    EXPECT_EQ(gif_image, nullptr);
    EXPECT_TRUE(image_mapping_points.empty());
    EXPECT_THAT(allocation(), Each(0));
}

TEST_F(FailingGif, CanvasIsAsLargeAsThePlanesWithSpareBytes)
{
    constexpr size_t canvas = size_t{20} * 32 * 4 + 256;
    failing_calls::plan.max_calloc = canvas;
    EXPECT_EQ(decode(), 0);
    reset_for_gif();
    open(file);
    failing_calls::plan.max_calloc = canvas - 1;
    EXPECT_EQ(decode(), -1);
}

TEST_F(FailingGif, SavedCanvasAllocationFails)
{
    failing_calls::plan.calloc = 2;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "");
    expect_frames(1);
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}, {10, 1}}));
    EXPECT_EQ(image_mapping_total, 30U);
    EXPECT_NE(gif_image, nullptr);
}

TEST_F(FailingGif, TimelineAllocationFails)
{
    failing_new = 3;
    EXPECT_EQ(full_decode_gif(), -1);
    EXPECT_EQ(failing_new, 0);
    EXPECT_EQ(image_mapping_points, (timeline{{0, 0}, {10, 1}}));
    expect_frames(2);
}

TEST_F(FailingGif, EachPlaneOfEachFrameMayFailToMap)
{
    const char* const messages[] = {
        "Failed to memory-map Y plane\n", "Failed to memory-map U plane\n",
        "Failed to memory-map V plane\n", "Failed to memory-map A plane\n"};
    for (size_t frame = 0; frame < 3; ++frame) {
        for (size_t plane = 0; plane < 4; ++plane) {
            reset_for_gif();
            open(file);
            const uint64_t row = *frame_planes[plane].offset + image_stride_Y * 19;
            scripted::plan.unmappable = {frame * image_decoded_unit_size + row, 1};
            EXPECT_EQ(decode(), -1);
            EXPECT_EQ(printed, messages[plane]);
            expect_frames(frame);
            EXPECT_EQ(image_mapping_points.size(), frame + 1);
            EXPECT_EQ(image_mapping_total, 30U); // set by the examination
        }
    }
}

TEST_F(FailingGif, AnyMappingMayFail)
{
    EXPECT_EQ(decode(), 0);
    const auto requests = static_cast<int>(scripted::log.mappings);
    for (int n = 1; n <= requests; ++n) {
        reset_for_gif();
        open(file);
        scripted::plan.fail_mapping = n;
        EXPECT_EQ(decode(), -1) << n;
        EXPECT_THAT(printed, EndsWith(" plane\n"));
    }
}

using DecodeGifDeathTest = FailingGif;

TEST_F(DecodeGifDeathTest, InvariantsAreChecked)
{
    const auto dies = [](const char* condition) {
        EXPECT_EXIT(full_decode_gif(), testing::KilledBySignal(SIGABRT),
                    testing::StrEq(std::string("bin/vexa_stillimage: full_decode_gif: "
                                               "Assertion `") +
                                   condition + "' failed.\n"));
    };
    image_chroma_x_shift = 1;
    dies("image_chroma_x_shift == 0");
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 1;
    dies("image_chroma_y_shift == 0");
    image_chroma_y_shift = 0;
    image_has_alpha_channel = 0;
    dies("image_has_alpha_channel");
    image_has_alpha_channel = 1;
    const int images = gif_image->ImageCount;
    gif_image->ImageCount = 0;
    dies("gif_image->ImageCount > 0");
    gif_image->ImageCount = images;
    const int fd = image_cnb_buffer_fd;
    image_cnb_buffer_fd = -1;
    dies("image_cnb_buffer_fd >= 0");
    image_cnb_buffer_fd = fd;
}

TEST(GifUnitOffset, WrapsAtFourGibibytes)
{
    EXPECT_EQ(gif_unit_offset(0, 1000), 0U);
    EXPECT_EQ(gif_unit_offset(3, 1000), 3000U);
    EXPECT_EQ(gif_unit_offset(4, 0x3FFFFFFF), 0xFFFFFFFCU);
    EXPECT_EQ(gif_unit_offset(4, 0x40000000), 0U);
    EXPECT_EQ(gif_unit_offset(5, 0x40000001), 0x40000005U);
    EXPECT_EQ(gif_unit_offset(0x100000003, 0x100000007), 21U);
}

// --- signals and the socket ---------------------------------------------------------------------

TEST_F(DecodeGif, SocketIsServedForEveryFrameAndSixtyFourRows)
{
    open_frames(1, 1, std::vector<gif_frame_spec>(7, plain_frame(0, 0, 1, 1, 1)));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 7U);
    reset_for_gif();
    open_frames(1, 300, {plain_frame(0, 0, 1, 300, 1)});
    EXPECT_EQ(decode(), 0);
    // Clearing, background, drawing and converting take four rounds each.
    EXPECT_EQ(scripted::log.idle_rounds, 1U + 4 * 4);
}

} // namespace
