// Frames, texts and pixels of a contact sheet.
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/scanline_record.h"
#include "client/tool/calls.h"
#include "client/tool/picture_files.h"
#include "client/tool/sheet_canvas.h"
#include "client/tool/sheet_frames.h"
#include "client/tool/sheet_text.h"
#include "tests/support/frame_sample.h"

namespace {

// --- frames -------------------------------------------------------------------------------------

// Start times with their frame numbers, as a worker keeps them.
using start_times = std::map<uint64_t, uint64_t>;

sheet_frames frames_of(const start_times& starts, uint64_t duration, size_t max)
{
    return frames_for_sheet(duration, max, [&](uint64_t moment) {
        EXPECT_LT(moment, duration);
        return std::prev(starts.upper_bound(moment))->second;
    });
}

TEST(SheetFrames, AStillPictureIsOneFrame)
{
    const sheet_frames frames = frames_of({{0, 1}}, 1, 24);
    EXPECT_EQ(frames.total, 1U);
    EXPECT_EQ(frames.shown, (std::vector<sheet_frame>{{1, 0}}));
}

TEST(SheetFrames, FewFramesAreAllShownWithTheirStarts)
{
    const sheet_frames frames = frames_of({{0, 1}, {7, 2}, {8, 3}, {100, 4}}, 310, 4);
    EXPECT_EQ(frames.total, 4U);
    EXPECT_EQ(frames.shown, (std::vector<sheet_frame>{{1, 0}, {2, 7}, {3, 8}, {4, 100}}));
}

TEST(SheetFrames, FrameThatIsNeverShownIsLeftOut)
{
    const sheet_frames frames = frames_of({{0, 1}, {5, 3}}, 9, 24);
    EXPECT_EQ(frames.total, 3U);
    EXPECT_EQ(frames.shown, (std::vector<sheet_frame>{{1, 0}, {3, 5}}));
}

TEST(SheetFrames, OfManyFramesTheFirstTheLastAndSomeBetweenAreShown)
{
    start_times starts;
    for (uint64_t i = 0; i < 60; ++i) {
        starts[i * i] = i + 1;
    }
    const sheet_frames frames = frames_of(starts, 3600, 24);
    EXPECT_EQ(frames.total, 60U);
    ASSERT_EQ(frames.shown.size(), 24U);
    EXPECT_EQ(frames.shown.front(), (sheet_frame{1, 0}));
    EXPECT_EQ(frames.shown.back(), (sheet_frame{60, 3481}));
    for (size_t i = 1; i < 24; ++i) {
        const uint64_t step = frames.shown[i].number - frames.shown[i - 1].number;
        EXPECT_TRUE(step == 2 || step == 3) << step;
        EXPECT_EQ(starts[frames.shown[i].start], frames.shown[i].number);
    }
}

TEST(SheetFrames, InconsistentAnswersEndTheSearch)
{
    std::mt19937_64 random(3);
    int asked = 0;
    const sheet_frames frames = frames_for_sheet(UINT64_MAX, 24, [&](uint64_t) {
        ++asked;
        return random();
    });
    EXPECT_LE(frames.shown.size(), 24U);
    EXPECT_LE(asked, 1 + 24 * 65);
    EXPECT_TRUE(frames_for_sheet(10, 24, [](uint64_t) { return uint64_t{0}; }).shown.empty());
}

// --- text ---------------------------------------------------------------------------------------

sheet_facts facts_of(uint32_t width, uint32_t height)
{
    static const uint8_t sample = 0;
    sheet_facts facts = {};
    facts.frames = 1;
    facts.picture.full_width = width;
    facts.picture.full_height = height;
    facts.picture.plane[STILLIMAGE_Y] = facts.picture.plane[STILLIMAGE_U] = &sample;
    return facts;
}

TEST(SheetText, FactsOfAStillPicture)
{
    sheet_facts facts = facts_of(400, 301);
    EXPECT_EQ(facts_line(facts), "400 x 301");
    facts.levels = 1;
    EXPECT_EQ(facts_line(facts), "400 x 301, 1 level");
    facts.levels = 3;
    facts.picture.plane[STILLIMAGE_A] = facts.picture.plane[STILLIMAGE_Y];
    EXPECT_EQ(facts_line(facts), "400 x 301, with alpha, 3 levels");
    facts.picture.plane[STILLIMAGE_U] = nullptr;
    EXPECT_EQ(facts_line(facts), "400 x 301, grey, with alpha, 3 levels");
}

TEST(SheetText, FactsOfAnAnimation)
{
    sheet_facts facts = facts_of(64, 48);
    facts.frames = 12;
    facts.time = {310, {100, 1}};
    EXPECT_EQ(facts_line(facts), "64 x 48, 12 frames in 3.10 s");
}

TEST(SheetText, CaptionsOfFramesAndLevels)
{
    sheet_facts facts = facts_of(64, 48);
    EXPECT_EQ(frame_caption(facts, 1, 0), "64 x 48");
    facts.frames = 12;
    facts.time = {310, {100, 1}};
    EXPECT_EQ(frame_caption(facts, 3, 12), "#3  0.12 s\n64 x 48");
    EXPECT_EQ(level_caption(1, 200, 151), "L1 200 x 151");
}

TEST(SheetText, TimesFollowTheScale)
{
    EXPECT_EQ(seconds(12345, {100, 1}), "123.45 s");
    EXPECT_EQ(seconds(3, {30000, 1001}), "0.10 s");
}

TEST(SheetText, NameOmitsTheFolders)
{
    EXPECT_EQ(picture_name(R"({"item": {"file": "/a/b/photo.jpg"}})", "x"), "photo.jpg");
    EXPECT_EQ(picture_name(R"({"item": {}})", "/run/s.sock"), "s.sock");
    EXPECT_EQ(picture_name("not JSON", "plain"), "plain");
}

// --- pixels -------------------------------------------------------------------------------------

struct served {
    frame_sample sample;
    stillimage_picture picture;

    explicit served(const sample_shape& shape, unsigned seed = 1) : sample(shape)
    {
        std::mt19937 random(seed);
        const size_t planes = sample.message.scanline_offset;
        std::generate_n(sample.area.begin(), planes,
                        [&] { return static_cast<unsigned char>(random()); });
        std::string reason;
        EXPECT_TRUE(describe_picture(sample.record(), sample.message.scanline_size, sample.message,
                                     sample.area.data(), &picture, &reason))
            << reason;
    }
};

struct rgb_pixel {
    int red, green, blue;
    bool operator==(const rgb_pixel&) const = default;
};

rgb_pixel pixel(const rgb_picture& picture, uint32_t x, uint32_t y)
{
    const uint8_t* samples =
        picture.samples.data() + (size_t{y} * picture.width + x) * picture.channels;
    return {samples[0], samples[1], samples[2]};
}

sheet_canvas canvas_with(const stillimage_picture& picture, sheet_extent size)
{
    sheet_canvas canvas({size.width + 6, size.height + 6}, 0x2B);
    canvas.draw_picture({3, 3}, size, picture);
    return canvas;
}

// The defining formula: the mean of the samples under a pixel, each blended over the checkerboard.
int mean_over_board(const rgb_picture& rgb, sheet_extent shown, sheet_point at, int channel)
{
    const uint32_t left = at.x * rgb.width / shown.width;
    const uint32_t right = std::max((at.x + 1) * rgb.width / shown.width, left + 1);
    const uint32_t top = at.y * rgb.height / shown.height;
    const uint32_t bottom = std::max((at.y + 1) * rgb.height / shown.height, top + 1);
    double sum = 0;
    for (uint32_t y = top; y < bottom; ++y) {
        for (uint32_t x = left; x < right; ++x) {
            const uint8_t* samples =
                rgb.samples.data() + (size_t{y} * rgb.width + x) * rgb.channels;
            const double alpha = rgb.channels == 4 ? samples[3] / 255.0 : 1;
            sum += samples[channel] * alpha + checkerboard_at(at.x, at.y) * (1 - alpha);
        }
    }
    return static_cast<int>(std::lround(sum / ((right - left) * (bottom - top))));
}

TEST(SheetCanvas, PicturesOfEveryKindAndSizeAreMeansOfTheirSamples)
{
    const unsigned shifts[][2] = {{0, 0}, {1, 0}, {1, 1}, {2, 2}, {0, 1}};
    std::mt19937 random(5);
    for (unsigned round = 0; round < 60; ++round) {
        sample_shape shape;
        const auto up_to = [&random](uint32_t max) {
            return static_cast<uint32_t>(1 + random() % max);
        };
        shape.full_width = up_to(90);
        shape.full_height = up_to(90);
        shape.x_shift = shifts[round % 5][0];
        shape.y_shift = shifts[round % 5][1];
        shape.chroma = round % 7 != 0;
        shape.alpha = round % 2 == 0;
        const served one(shape, round);
        const sheet_extent shown = {up_to(120), up_to(120)};
        const sheet_canvas canvas = canvas_with(one.picture, shown);
        const rgb_picture rgb = to_rgb(one.picture, true);
        for (uint32_t y = 0; y < shown.height; ++y) {
            for (uint32_t x = 0; x < shown.width; ++x) {
                const rgb_pixel drawn = pixel(canvas.pixels(), x + 3, y + 3);
                ASSERT_NEAR(drawn.red, mean_over_board(rgb, shown, {x, y}, 0), 1);
                ASSERT_NEAR(drawn.green, mean_over_board(rgb, shown, {x, y}, 1), 1);
                ASSERT_NEAR(drawn.blue, mean_over_board(rgb, shown, {x, y}, 2), 1);
            }
        }
    }
}

TEST(SheetCanvas, PictureAtItsOwnSizeIsDrawnUnchanged)
{
    sample_shape shape;
    shape.full_width = 37;
    shape.full_height = 53;
    const served one(shape);
    const sheet_canvas canvas = canvas_with(one.picture, {37, 53});
    const rgb_picture rgb = to_rgb(one.picture, true);
    for (uint32_t y = 0; y < 53; ++y) {
        for (uint32_t x = 0; x < 37; ++x) {
            ASSERT_EQ(pixel(canvas.pixels(), x + 3, y + 3), pixel(rgb, x, y));
        }
    }
}

TEST(SheetCanvas, PictureStaysInsideItsArea)
{
    const served one({});
    const sheet_canvas canvas = canvas_with(one.picture, {20, 14});
    for (uint32_t y = 0; y < 20; ++y) {
        for (uint32_t x = 0; x < 26; ++x) {
            if (x < 3 || x >= 23 || y < 3 || y >= 17) {
                ASSERT_EQ(pixel(canvas.pixels(), x, y), (rgb_pixel{0x2B, 0x2B, 0x2B}));
            }
        }
    }
}

TEST(SheetCanvas, CheckerboardHasSquaresOfEight)
{
    EXPECT_EQ(checkerboard_at(0, 0), 0xCC);
    EXPECT_EQ(checkerboard_at(7, 7), 0xCC);
    EXPECT_EQ(checkerboard_at(8, 7), 0x99);
    EXPECT_EQ(checkerboard_at(7, 8), 0x99);
    EXPECT_EQ(checkerboard_at(8, 8), 0xCC);
}

TEST(SheetCanvas, TextIsDrawnPixelByPixel)
{
    sheet_canvas canvas({40, 40}, 0);
    canvas.draw_text({2, 3}, 2, "LL\nL", 200);
    std::string seen;
    for (uint32_t y = 3; y < 39; y += 2) {
        for (uint32_t x = 2; x < 26; x += 2) {
            const rgb_pixel corner = pixel(canvas.pixels(), x, y);
            EXPECT_EQ(pixel(canvas.pixels(), x + 1, y + 1), corner);
            seen += corner.red == 200 ? '#' : ' ';
        }
        seen += '\n';
    }
    std::string expected;
    for (int i = 0; i < 6; ++i) {
        expected += "#     #     \n";
    }
    expected += "##### ##### \n";
    expected +=
        std::string(12, ' ') + "\n" + std::string(12, ' ') + "\n" + std::string(12, ' ') + "\n";
    for (int i = 0; i < 6; ++i) {
        expected += "#           \n";
    }
    expected += "#####       \n" + std::string(12, ' ') + "\n";
    EXPECT_EQ(seen, expected);
}

TEST(SheetCanvas, FrameLiesOutsideThePicture)
{
    sheet_canvas canvas({10, 10}, 0);
    canvas.draw_frame({3, 4}, {4, 2}, 9);
    std::string seen;
    for (uint32_t y = 0; y < 10; ++y) {
        for (uint32_t x = 0; x < 10; ++x) {
            seen += pixel(canvas.pixels(), x, y).red == 9 ? '#' : '.';
        }
    }
    EXPECT_EQ(seen, std::string("..........") + ".........." + ".........." + "..######.." +
                        "..#....#.." + "..#....#.." + "..######.." + ".........." + ".........." +
                        "..........");
}

TEST(SheetCanvas, DrawingIsClippedAtTheEdge)
{
    sheet_canvas canvas({8, 8}, 0);
    canvas.draw_text({6, 6}, 3, "MMM", 9);
    canvas.draw_frame({2, 2}, {20, 20}, 9);
    EXPECT_EQ(canvas.pixels().samples.size(), 8U * 8 * 3);
    EXPECT_EQ(pixel(canvas.pixels(), 7, 1).red, 9);
}

// --- the call -----------------------------------------------------------------------------------

TEST(SheetCall, OtherFileFormatsAreRefusedImmediately)
{
    for (const char* name : {"sheet.jpg", "sheet", "png", "sheet.png.txt"}) {
        call_options options;
        options.socket_or_picture = "/nobody/serves/here";
        options.output = name;
        testing::internal::CaptureStderr();
        EXPECT_EQ(call_sheet(options), STATUS_USAGE);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("stillimage-client: a contact sheet is a PNG, not ") + name +
                      " (name it .png, or - for standard output)\n");
    }
}

TEST(SheetCall, MissingWorkerIsReportedAsUsual)
{
    for (const char* name : {"sheet.png", "folder/SHEET.PNG", "-"}) {
        call_options options;
        options.socket_or_picture = "/nobody/serves/here";
        options.output = name;
        options.timeout_ms = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(call_sheet(options), STATUS_NO_WORKER);
        testing::internal::GetCapturedStderr();
    }
}

} // namespace
