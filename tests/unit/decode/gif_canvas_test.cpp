// Drawing on an R, G, B, A canvas, with hand-made records of giflib.
#include <random>
#include <sys/mman.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/colour_rules.h"
#include "bin/decode/gif_canvas.h"
#include "bin/examine/gif.h"
#include "bin/examine/gif_interlacing.h"
#include "tests/support/scripted_platform.h"

using testing::Each;
using testing::ElementsAre;

namespace {

using rgba = std::array<unsigned char, 4>;

constexpr rgba untouched = {0xEE, 0xEE, 0xEE, 0xEE};
constexpr rgba cleared = {0, 0, 0, 0};
constexpr rgba red = {255, 0, 0, 255};
constexpr rgba green = {0, 255, 0, 255};
constexpr rgba blue = {0, 0, 255, 255};
constexpr rgba grey = {9, 9, 9, 255};

class GifCanvas : public testing::Test {
protected:
    static constexpr size_t columns = 16;

    void SetUp() override
    {
        scripted::reset();
        reset_gif_canvas();
        screen.SWidth = 4;
        screen.SHeight = 3;
        screen.SBackGroundColor = 2;
        screen.SColorMap = &global;
        gif_image = &screen;
        canvas.assign(columns * 3 * 4, 0xEE);
        set_frame(1, 1, 2, 1, {0, 1});
    }

    void TearDown() override
    {
        gif_image = nullptr;
        scripted::reset();
        reset_gif_canvas();
    }

    void set_frame(int left, int top, int width, int height, std::vector<unsigned char> pixels)
    {
        raster = std::move(pixels);
        frame.ImageDesc.Left = left;
        frame.ImageDesc.Top = top;
        frame.ImageDesc.Width = width;
        frame.ImageDesc.Height = height;
        frame.RasterBits = raster.data();
    }

    void set_blocks(std::vector<std::vector<unsigned char>> contents, int code = 0xF9)
    {
        block_bytes = std::move(contents);
        blocks.clear();
        for (auto& bytes : block_bytes) {
            blocks.push_back({static_cast<int>(bytes.size()), bytes.data(), code});
        }
        frame.ExtensionBlocks = blocks.data();
        frame.ExtensionBlockCount = static_cast<int>(blocks.size());
    }

    void draw(bool first = false) { gif_to_RGBA(canvas.data(), columns * 4, &frame, first); }
    void restore() { gif_RGBA_bgcolor(canvas.data(), columns * 4, &frame); }

    rgba pixel(size_t x, size_t y) const
    {
        const unsigned char* at = &canvas[(y * columns + x) * 4];
        return {at[0], at[1], at[2], at[3]};
    }

    std::vector<rgba> row(size_t y) const
    {
        std::vector<rgba> pixels;
        for (size_t x = 0; x < columns; ++x) {
            pixels.push_back(pixel(x, y));
        }
        return pixels;
    }

    std::vector<rgba> screen_row(size_t y) const
    {
        return {pixel(0, y), pixel(1, y), pixel(2, y), pixel(3, y)};
    }

    void expect_untouched() const { EXPECT_THAT(canvas, Each(0xEE)); }

    GifColorType colours[3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
    GifColorType local_colours[4] = {{0, 255, 0}, {9, 9, 9}, {9, 9, 9}, {255, 0, 0}};
    ColorMapObject global = {3, 2, false, colours};
    ColorMapObject local = {4, 2, false, local_colours};
    GifFileType screen = {};
    SavedImage frame = {};
    std::vector<unsigned char> raster;
    std::vector<std::vector<unsigned char>> block_bytes;
    std::vector<ExtensionBlock> blocks;
    std::vector<unsigned char> canvas;
};

// --- the screen before the first frame ----------------------------------------------------------

TEST_F(GifCanvas, ScreenStartsInTheBackgroundColour)
{
    draw(true);
    EXPECT_THAT(screen_row(0), Each(blue));
    EXPECT_THAT(screen_row(1), ElementsAre(blue, red, green, blue));
    EXPECT_THAT(screen_row(2), Each(blue));
    EXPECT_EQ(pixel(4, 0), untouched); // outside the screen
}

TEST_F(GifCanvas, BackgroundColourComesFromTheFramesOwnColours)
{
    frame.ImageDesc.ColorMap = &local;
    draw(true);
    EXPECT_EQ(pixel(0, 0), grey);
    EXPECT_EQ(pixel(1, 1), green);
}

TEST_F(GifCanvas, TransparentFirstFrameClearsAsManyRowsAsItHas)
{
    set_blocks({{1, 0, 0, 7}});
    set_frame(1, 2, 2, 1, {0, 1});
    draw(true);
    EXPECT_THAT(row(0), Each(cleared)); // clears the canvas's whole first row, not the frame's row
    EXPECT_THAT(row(1), Each(untouched));
    EXPECT_EQ(pixel(1, 2), red);
    EXPECT_EQ(pixel(0, 2), untouched);
}

TEST_F(GifCanvas, WithoutGlobalColoursTheScreenStartsCleared)
{
    screen.SColorMap = nullptr;
    frame.ImageDesc.ColorMap = &local;
    draw(true);
    EXPECT_THAT(row(0), Each(cleared));
    EXPECT_EQ(pixel(1, 1), green);
}

TEST_F(GifCanvas, BackgroundIndexBeyondTheColoursClearsTheScreen)
{
    screen.SBackGroundColor = 3;
    draw(true);
    EXPECT_THAT(row(0), Each(cleared));
}

TEST_F(GifCanvas, ClearingStopsAtTheEndOfTheScreen)
{
    set_blocks({{1, 0, 0, 7}});
    set_frame(0, 0, 1, 60000, std::vector<unsigned char>(60000, 1));
    draw(true);
    EXPECT_EQ(pixel(0, 2), green);
    EXPECT_EQ(pixel(15, 2), cleared);
}

TEST_F(GifCanvas, LaterFramesChangeNothingOutsideThem)
{
    draw();
    EXPECT_THAT(row(0), Each(untouched));
    EXPECT_THAT(screen_row(1), ElementsAre(untouched, red, green, untouched));
}

// --- colours ------------------------------------------------------------------------------------

TEST_F(GifCanvas, WithoutColoursNothingIsDrawnOrStored)
{
    set_blocks({{1, 0, 0, 7}});
    ColorMapObject empty = {0, 0, false, colours};
    ColorMapObject null = {3, 2, false, nullptr};
    screen.SColorMap = nullptr;
    draw(true);
    restore();
    for (ColorMapObject* map : {&empty, &null}) {
        screen.SColorMap = map;
        draw(true);
        restore();
        screen.SColorMap = &global;
        frame.ImageDesc.ColorMap = map; // the frame's own map counts, although a global one exists
        draw(true);
        restore();
        frame.ImageDesc.ColorMap = nullptr;
    }
    expect_untouched();
    EXPECT_FALSE(gif_last_transparency);
}

TEST_F(GifCanvas, IndexBeyondTheColoursIsTheFirstColour)
{
    set_frame(0, 0, 4, 1, {2, 3, 255, 1});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(blue, red, red, green));
}

// --- transparency -------------------------------------------------------------------------------

const unsigned char transparent_color_at_first = gif_last_transparent_color;

TEST_F(GifCanvas, InitialTransparentIndexIs255)
{
    EXPECT_EQ(transparent_color_at_first, 255);
}

TEST_F(GifCanvas, OwnTransparentIndexShowsTheCanvas)
{
    set_blocks({{1, 0, 0, 2}});
    set_frame(0, 0, 4, 1, {0, 2, 1, 2});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, untouched, green, untouched));
    EXPECT_TRUE(gif_last_transparency);
    EXPECT_EQ(gif_last_transparent_color, 2);
    reset_gif_canvas();
    EXPECT_EQ(gif_last_transparent_color, 255); // the initial value
}

TEST_F(GifCanvas, TransparentIndexBeyondTheColoursIsTransparentToo)
{
    set_blocks({{1, 0, 0, 200}});
    set_frame(0, 0, 4, 1, {0, 200, 201, 1});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, untouched, red, green));
}

TEST_F(GifCanvas, TransparentIndexOfAnEarlierFrameIsCleared)
{
    set_blocks({{1, 0, 0, 1}});
    draw();
    set_blocks({});
    set_frame(0, 0, 4, 1, {0, 1, 2, 3});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, cleared, blue, red));
    EXPECT_TRUE(gif_last_transparency);
}

TEST_F(GifCanvas, EarlierIndexBeyondTheColoursIsClearedToo)
{
    gif_last_transparency = true;
    gif_last_transparent_color = 200;
    set_frame(0, 0, 4, 1, {200, 201, 0, 1});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(cleared, red, red, green));
}

TEST_F(GifCanvas, OwnTransparentIndexReplacesTheEarlierOne)
{
    gif_last_transparency = true;
    gif_last_transparent_color = 0;
    set_blocks({{1, 0, 0, 1}});
    set_frame(0, 0, 4, 1, {0, 1, 2, 3});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, untouched, blue, red));
    EXPECT_EQ(gif_last_transparent_color, 1);
}

TEST_F(GifCanvas, EarlierIndexDoesNotAffectTheBackgroundOfTheScreen)
{
    gif_last_transparency = true;
    draw(true);
    EXPECT_THAT(screen_row(0), Each(blue));
}

TEST_F(GifCanvas, LastTransparentBlockCounts)
{
    set_blocks({{1, 0, 0, 0}, {1, 0, 0, 1}, {0, 0, 0, 2}});
    set_frame(0, 0, 4, 1, {0, 1, 2, 0});
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, untouched, blue, red));
}

TEST_F(GifCanvas, OtherBlocksAreIgnored)
{
    set_frame(0, 0, 4, 1, {0, 1, 2, 0});
    set_blocks({{1, 0, 0}, {}, {0xFE, 0, 0, 0}});
    draw();
    set_blocks({{1, 0, 0, 0}}, 0xFE);
    draw();
    EXPECT_THAT(screen_row(0), ElementsAre(red, green, blue, red));
    EXPECT_FALSE(gif_last_transparency);
}

// --- clipping -----------------------------------------------------------------------------------

TEST_F(GifCanvas, FramesAreClippedToTheScreen)
{
    set_frame(3, 2, 2, 2, {0, 1, 2, 2});
    draw();
    EXPECT_EQ(pixel(3, 2), red);
    EXPECT_EQ(pixel(4, 2), untouched);
    EXPECT_THAT(row(1), Each(untouched));
}

TEST_F(GifCanvas, FramesThatStartOutsideDrawNothing)
{
    const std::vector<unsigned char> pixels(4, 1);
    for (const auto& [left, top] : {std::pair{4, 0}, {0, 3}, {-1, 0}, {0, -1}, {65535, 65535}}) {
        set_frame(left, top, 2, 2, pixels);
        draw();
        restore();
    }
    expect_untouched();
}

TEST_F(GifCanvas, EmptyFramesDrawNothing)
{
    for (const auto& [width, height] : {std::pair{2, 0}, {0, 2}}) {
        set_frame(0, 0, width, height, {1, 1});
        draw();
        restore();
    }
    set_frame(0, 0, 2, 1, {1, 1});
    frame.RasterBits = nullptr;
    draw();
    expect_untouched();
}

TEST_F(GifCanvas, LastPixelOfTheLargestScreen)
{
    constexpr size_t pitch = size_t{65536} * 4;
    constexpr size_t size = pitch * 65535;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        GTEST_SKIP() << "not enough address space";
    }
    screen.SWidth = screen.SHeight = 65535;
    set_frame(65534, 65534, 65535, 2, std::vector<unsigned char>(size_t{65535} * 2, 1));
    auto* pixels = static_cast<unsigned char*>(memory);
    gif_to_RGBA(pixels, pitch, &frame, false);
    const unsigned char* last = pixels + 65534 * pitch + size_t{65534} * 4;
    EXPECT_THAT(std::vector<unsigned char>(last - 4, last + 8),
                ElementsAre(0, 0, 0, 0, 0, 255, 0, 255, 0, 0, 0, 0));
    gif_RGBA_bgcolor(pixels, pitch, &frame);
    EXPECT_THAT(std::vector<unsigned char>(last - 4, last + 8),
                ElementsAre(0, 0, 0, 0, 0, 0, 255, 255, 0, 0, 0, 0));
    munmap(memory, size);
}

// --- restoring the background -------------------------------------------------------------------

TEST_F(GifCanvas, RectangleGetsTheBackgroundColour)
{
    set_frame(2, 1, 9, 9, {});
    restore();
    EXPECT_THAT(row(0), Each(untouched));
    EXPECT_THAT(screen_row(1), ElementsAre(untouched, untouched, blue, blue));
    EXPECT_THAT(screen_row(2), ElementsAre(untouched, untouched, blue, blue));
    EXPECT_EQ(pixel(4, 1), untouched);
}

TEST_F(GifCanvas, BackgroundIndexBeyondTheColoursIsTheFirstColour)
{
    screen.SBackGroundColor = 3;
    restore();
    EXPECT_EQ(pixel(1, 1), red);
    frame.ImageDesc.ColorMap = &local;
    restore();
    EXPECT_EQ(pixel(1, 1), red); // the fourth colour of its own map
    screen.SBackGroundColor = 4;
    restore();
    EXPECT_EQ(pixel(1, 1), green);
}

TEST_F(GifCanvas, RectangleOfATransparentFrameIsCleared)
{
    set_blocks({{1, 0, 0, 200}, {0, 0, 0, 0}});
    restore();
    EXPECT_THAT(screen_row(1), ElementsAre(untouched, cleared, cleared, untouched));
    EXPECT_FALSE(gif_last_transparency);
}

TEST_F(GifCanvas, EarlierIndexDoesNotClearTheRectangle)
{
    gif_last_transparency = true;
    restore();
    EXPECT_EQ(pixel(1, 1), blue);
}

// --- interlacing --------------------------------------------------------------------------------

TEST(GifInterlacing, TenRows)
{
    std::vector<unsigned> rows;
    for (unsigned row = 0; row < 10; ++row) {
        rows.push_back(gif_interlacing_function(row, 10));
    }
    EXPECT_THAT(rows, ElementsAre(0, 8, 4, 2, 6, 1, 3, 5, 7, 9));
}

TEST(GifInterlacing, FourPassesOverEveryHeight)
{
    for (unsigned height = 0; height <= 70; ++height) {
        std::vector<unsigned> rows;
        for (unsigned row = 0; row < height; ++row) {
            rows.push_back(gif_interlacing_function(row, height));
        }
        std::vector<unsigned> passes;
        for (const auto& [first, step] : {std::pair{0U, 8U}, {4U, 8U}, {2U, 4U}, {1U, 2U}}) {
            for (unsigned row = first; row < height; row += step) {
                passes.push_back(row);
            }
        }
        EXPECT_EQ(rows, passes) << height;
    }
}

TEST(GifInterlacing, RowsBeyondTheHeightAreTheFirst)
{
    for (unsigned height = 0; height <= 20; ++height) {
        for (unsigned more = 0; more < 20; ++more) {
            EXPECT_EQ(gif_interlacing_function(height + more, height), 0U) << height;
        }
    }
}

TEST_F(GifCanvas, InterlacedRowsOutsideTheScreenAreSkipped)
{
    frame.ImageDesc.Interlace = true;
    set_frame(0, 1, 1, 9, {0, 2, 2, 2, 2, 1, 2, 2, 2}); // rows 0, 8, 4, 2, 6, 1, 3, 5, 7
    draw();
    EXPECT_EQ(pixel(0, 0), untouched);
    EXPECT_EQ(pixel(0, 1), red);
    EXPECT_EQ(pixel(0, 2), green);
}

// --- RGBA and YUVA canvases ---------------------------------------------------------------------

TEST_F(GifCanvas, ConvertedPixelsAreTheSamePicture)
{
    std::mt19937 random(7);
    std::vector<unsigned char> converted(canvas.size());
    canvas.assign(canvas.size(), 0);
    const gif_canvas yuva = {converted.data(), columns * 4, &gif_yuva_form};
    clear_gif_rows(yuva, 3);
    for (int round = 0; round < 500; ++round) {
        for (GifColorType& c : colours) {
            c = {static_cast<unsigned char>(random()), static_cast<unsigned char>(random()),
                 static_cast<unsigned char>(random())};
        }
        std::vector<unsigned char> pixels(9);
        for (unsigned char& index : pixels) {
            index = static_cast<unsigned char>(random() % 5);
        }
        set_frame(static_cast<int>(random() % 5), static_cast<int>(random() % 4), 3, 3, pixels);
        set_blocks({{static_cast<unsigned char>(random() % 2), 0, 0,
                     static_cast<unsigned char>(random() % 5)}});
        gif_last_transparency = random() % 2 == 0;
        const bool remembered = gif_last_transparency;
        const bool first = random() % 8 == 0;
        draw(first);
        gif_last_transparency = remembered;
        draw_gif_frame(yuva, frame, first);
        if (random() % 3 == 0) {
            restore();
            restore_gif_background(yuva, frame);
        }
        for (size_t i = 0; i < canvas.size(); i += 4) {
            const yuv_sample wanted = rgb_to_yuv(canvas[i], canvas[i + 1], canvas[i + 2]);
            ASSERT_THAT(std::vector<unsigned char>(&converted[i], &converted[i] + 4),
                        ElementsAre(wanted.y, wanted.u, wanted.v, canvas[i + 3]));
        }
    }
}

TEST_F(GifCanvas, SignalStopsDrawingWithinSixtyFourRows)
{
    screen.SHeight = 200;
    canvas.assign(columns * 200 * 4, 0xEE);
    set_frame(0, 0, 1, 200, std::vector<unsigned char>(200, 1));
    scripted::plan.die_after_idle = 2;
    draw();
    EXPECT_EQ(pixel(0, 127), green);
    EXPECT_EQ(pixel(0, 128), untouched);
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
}

} // namespace
