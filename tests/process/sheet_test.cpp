// Contact sheets of real pictures: what they show, and where. The positions are those that the
// tests of the layout expect.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <png.h>

#include "tests/support/file_contents.h"
#include "tests/support/gif_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/support/worker.h"

namespace {

using bytes = std::vector<unsigned char>;

constexpr int background = 0x2B;
constexpr int title_shade = 0xF0;
constexpr int text_shade = 0xB4;
constexpr int frame_shade = 0x5A;

struct colour {
    int red, green, blue;
};

struct sheet_image {
    uint32_t width = 0;
    uint32_t height = 0;
    bytes rgb;

    colour at(uint32_t x, uint32_t y) const
    {
        const unsigned char* samples = rgb.data() + (size_t{y} * width + x) * 3;
        return {samples[0], samples[1], samples[2]};
    }
};

bool read_sheet(const std::string& file, sheet_image* sheet)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, file.data(), file.size()) == 0) {
        return false;
    }
    image.format = PNG_FORMAT_RGB;
    sheet->width = image.width;
    sheet->height = image.height;
    sheet->rgb.resize(PNG_IMAGE_SIZE(image));
    return png_image_finish_read(&image, nullptr, sheet->rgb.data(), 0, nullptr) != 0;
}

void expect_colour(const sheet_image& sheet, uint32_t x, uint32_t y, colour wanted)
{
    ASSERT_LT(x, sheet.width);
    ASSERT_LT(y, sheet.height);
    const colour seen = sheet.at(x, y);
    EXPECT_NEAR(seen.red, wanted.red, 3) << x << ", " << y;
    EXPECT_NEAR(seen.green, wanted.green, 3) << x << ", " << y;
    EXPECT_NEAR(seen.blue, wanted.blue, 3) << x << ", " << y;
}

void expect_grey(const sheet_image& sheet, uint32_t x, uint32_t y, int shade)
{
    expect_colour(sheet, x, y, {shade, shade, shade});
}

class Sheet : public testing::Test {
protected:
    std::string stored(const std::string& name, const bytes& file) const
    {
        std::string path = home_.path(name);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(file.data()),
                   static_cast<std::streamsize>(file.size()));
        return path;
    }

    sheet_image sheet_of(const std::string& picture)
    {
        const worker served(home_, picture);
        std::string file;
        sheet_image sheet;
        EXPECT_EQ(run_client(home_, {served.socket(), "sheet", "-"}, &file), 0);
        EXPECT_TRUE(read_sheet(file, &sheet));
        return sheet;
    }

    worker_home home_;
};

bytes pixels(int count, bytes rgba)
{
    bytes all;
    for (int i = 0; i < count; ++i) {
        all.insert(all.end(), rgba.begin(), rgba.end());
    }
    return all;
}

bytes flat_frames(const std::vector<gif_colour>& colours, unsigned width, unsigned height,
                  unsigned frames)
{
    gif_spec spec;
    spec.width = width;
    spec.height = height;
    spec.palette = colours;
    for (unsigned i = 0; i < frames; ++i) {
        gif_frame_spec frame;
        frame.width = width;
        frame.height = height;
        frame.control = gif_control_spec{0, 10, {}};
        frame.indices =
            bytes(size_t{width} * height, static_cast<unsigned char>(i % colours.size()));
        spec.frames.push_back(frame);
    }
    return write_gif(spec);
}

TEST_F(Sheet, StillPictureWithItsLevels)
{
    const sheet_image sheet = sheet_of(
        stored("blue.webp", lossless_webp(160, 120, pixels(160 * 120, {20, 60, 200, 255}))));
    EXPECT_EQ(sheet.width, 354U);
    EXPECT_EQ(sheet.height, 290U);
    expect_grey(sheet, 0, 0, background);
    expect_grey(sheet, 32, 33, title_shade); // the title's first letter
    expect_grey(sheet, 31, 111, frame_shade);
    for (const uint32_t x : {32U, 111U, 191U}) {
        expect_colour(sheet, x, 112, {20, 60, 200});
        expect_colour(sheet, x, 231, {20, 60, 200});
    }
    expect_grey(sheet, 192, 112, frame_shade);
    expect_colour(sheet, 32 + 172, 112, {20, 60, 200});
    expect_colour(sheet, 32 + 172 + 79, 112 + 59, {20, 60, 200});
    expect_grey(sheet, 32 + 172 + 80, 112 + 59, frame_shade);
    expect_colour(sheet, 32 + 172 + 39, 112 + 94 + 29, {20, 60, 200});
    expect_grey(sheet, 32 + 172 + 40, 112 + 94 + 29, frame_shade);
    expect_grey(sheet, 32 + 172, 112 + 66, text_shade); // the L of L1
}

TEST_F(Sheet, TransparentAreasShowACheckerboard)
{
    bytes rgba = pixels(160 * 60, {200, 40, 40, 0});
    const bytes opaque = pixels(160 * 60, {200, 40, 40, 255});
    rgba.insert(rgba.end(), opaque.begin(), opaque.end());
    const sheet_image sheet = sheet_of(stored("half.webp", lossless_webp(160, 120, rgba)));
    expect_grey(sheet, 32, 112, 0xCC);
    expect_grey(sheet, 32 + 8, 112, 0x99);
    expect_grey(sheet, 32 + 8, 112 + 8, 0xCC);
    expect_colour(sheet, 32, 112 + 100, {200, 40, 40});
}

TEST_F(Sheet, FramesOfAnAnimationSideBySide)
{
    const std::vector<gif_colour> colours = {
        {200, 30, 30}, {30, 160, 30}, {30, 30, 220}, {240, 240, 20}};
    const sheet_image sheet = sheet_of(stored("four.gif", flat_frames(colours, 160, 100, 3)));
    // Two levels, the second 40 pixels wide: a card is as wide as its picture and the label "L2 40
    // x 25".
    constexpr uint32_t card = 160 + 12 + 118 + 40;
    for (uint32_t i = 0; i < 3; ++i) {
        const colour wanted = {colours[i][0], colours[i][1], colours[i][2]};
        expect_colour(sheet, 32 + i * card + 80, 112 + 50, wanted);
        expect_colour(sheet, 32 + i * card + 172 + 40, 112 + 25, wanted);
        expect_colour(sheet, 32 + i * card + 172 + 20, 112 + 50 + 34 + 12, wanted);
    }
    EXPECT_EQ(sheet.width, 32 + 3 * card - 40 + 32);
}

TEST_F(Sheet, ManyFramesGiveABoundedSheetFromTheFirstToTheLast)
{
    std::vector<gif_colour> colours(128, gif_colour{30, 160, 30});
    colours[0] = {200, 30, 30};
    colours[99] = {30, 30, 220};
    const sheet_image sheet = sheet_of(stored("many.gif", flat_frames(colours, 60, 40, 100)));
    EXPECT_LT(sheet.width, 1700U);
    EXPECT_LT(sheet.height, 2000U);
    // The head has one more line. Pictures of 60 x 40 are drawn three times as large, with a level
    // beside them.
    constexpr uint32_t top = 112 + 24;
    expect_colour(sheet, 32 + 90, top + 60, {200, 30, 30});
    size_t last = 0;
    for (size_t i = 0; i < sheet.rgb.size(); i += 3) {
        last += sheet.rgb[i + 2] > 200 && sheet.rgb[i] < 50 ? 1 : 0;
    }
    EXPECT_GE(last, 180U * 120);
    EXPECT_LT(last, 2U * 180 * 120);
}

TEST_F(Sheet, IsWrittenWholeOrNotAtAll)
{
    const worker served(home_, STILLIMAGE_TEST_DATA "/webp/lossy-alpha.webp");
    const std::string out = home_.path("out.png");
    EXPECT_EQ(run_client(home_, {served.socket(), "sheet", out}), 0);
    sheet_image sheet;
    EXPECT_TRUE(read_sheet(read_text(out), &sheet));
    EXPECT_EQ(run_client(home_, {served.socket(), "sheet", home_.path("none/out.png")}), 1);
    EXPECT_EQ(run_client(home_, {served.socket(), "sheet", "out.gif"}), 2);
    EXPECT_EQ(run_client(home_, {home_.path("nobody"), "sheet", out}), 3);
}

// The ending alone decides, as in other programs; "sheet" and "save" accept the same names.
TEST_F(Sheet, NamesInCapitalsOrOfTheEndingAloneAreAccepted)
{
    const worker served(home_, STILLIMAGE_TEST_DATA "/webp/lossy-alpha.webp");
    for (const char* call : {"sheet", "save"}) {
        for (const char* name : {".png", "OUT.PNG"}) {
            const std::string out = home_.path(name);
            EXPECT_EQ(run_client(home_, {served.socket(), call, out}), 0) << call << " " << name;
            EXPECT_TRUE(std::filesystem::remove(out)) << call << " " << name;
        }
    }
}

} // namespace
