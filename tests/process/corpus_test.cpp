// Every PNG, TIFF, GIF and WebP of tests/data through the real worker: its exit status, its
// messages, the planes that a client receives, and that no byte of the shared area depends on
// former contents of the worker's heap.
#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* alpha_dropped = "Image has opaque alpha channel. Disabling alpha channel.";
constexpr const char* cut_png = "PNG ERROR: Read Error\nlibpng error: Read Error\n"
                                "Unexpected PNG error while reading, aborting decode\n";
constexpr const char* png_of_damaged_data =
    "PNG ERROR: IDAT: CRC error\nlibpng error: IDAT: CRC error\n"
    "Unexpected PNG error while reading, aborting decode\n";
constexpr const char* png_of_damaged_header =
    "PNG ERROR: IHDR: CRC error\nlibpng error: IHDR: CRC error\n"
    "Unexpected PNG error, giving up\nPNG examination failed\n";
constexpr const char* refused_png =
    "PNG ERROR: Invalid IHDR data\nlibpng error: Invalid IHDR data\n"
    "Unexpected PNG error, giving up\nPNG examination failed\n";
constexpr const char* refused_png_size =
    "PNG ERROR: Invalid IHDR data\nlibpng error: Invalid IHDR data\n"
    "Unexpected PNG error, giving up\nImage width and height is unacceptable\n"
    "PNG examination failed\n";
constexpr const char* failed_webp = "WARNING: Failed to decode WebP image\n";
constexpr const char* broken_gif = "GIF reading error (?)\n";
constexpr const char* subsampled_tiff = "Assertion `image_chroma_x_shift == 0' failed.\n";

enum plane_set { GREY, GREY_ALPHA, COLOUR, COLOUR_ALPHA };

struct served_picture {
    const char* name;
    uint32_t width;
    uint32_t height;
    plane_set planes;
    uint64_t last_time = 0; // the last time position of the timeline
    uint64_t frames = 1;
    const char* message = nullptr; // part of its messages; null: no complaint of any kind
};

struct refused_picture {
    const char* name;
    int status;
    const char* message; // the end of its standard error
};

class Corpus : public testing::Test {
protected:
    static std::string path(const char* name)
    {
        return std::string(STILLIMAGE_TEST_DATA "/") + name;
    }

    static void expect_complaint(const served_picture& wanted, const std::string& printed)
    {
        if (wanted.message != nullptr) {
            EXPECT_THAT(printed, HasSubstr(wanted.message)) << wanted.name;
        }
        if (wanted.message == nullptr || wanted.message == alpha_dropped) {
            for (const char* sign : {"WARNING", "ERROR", "rror:", "ailed", "prematurely"}) {
                EXPECT_THAT(printed, Not(HasSubstr(sign))) << wanted.name;
            }
        }
    }

    static void expect_planes(const served_picture& wanted, const stillimage_picture& picture)
    {
        EXPECT_EQ(picture.width, wanted.width) << wanted.name;
        EXPECT_EQ(picture.height, wanted.height) << wanted.name;
        const bool colour = wanted.planes == COLOUR || wanted.planes == COLOUR_ALPHA;
        const bool alpha = wanted.planes == GREY_ALPHA || wanted.planes == COLOUR_ALPHA;
        EXPECT_EQ(picture.plane[STILLIMAGE_U] != nullptr, colour) << wanted.name;
        EXPECT_EQ(picture.plane[STILLIMAGE_V] != nullptr, colour) << wanted.name;
        EXPECT_EQ(picture.plane[STILLIMAGE_A] != nullptr, alpha) << wanted.name;
    }

    // Serves the picture and returns the whole shared area.
    static std::vector<unsigned char> serve(const served_picture& wanted, const char* perturb)
    {
        const worker_home home;
        worker::setting how = {
            {"--file", path(wanted.name), "--sock", home.path("s"), "--no-autoshutdown"}};
        how.more_environment = {std::string("MALLOC_PERTURB_=") + perturb};
        worker served(home, how);
        const held_client client = connect_to(home.path("s"));
        // An interlaced picture is served before it is complete.
        EXPECT_EQ(stillimage_wait_ready(client.get(), 0, 30'000), STILLIMAGE_OK) << wanted.name;
        const held_frame first = take_frame(client);
        const held_frame last = take_frame(client, wanted.last_time);
        if (first == nullptr || last == nullptr) {
            ADD_FAILURE() << wanted.name << '\n' << served.printed();
            return {};
        }
        expect_complaint(wanted, served.printed());
        expect_planes(wanted, *stillimage_frame_picture(first.get()));
        EXPECT_EQ(stillimage_frame_picture(last.get())->frame_number, wanted.frames) << wanted.name;
        const stillimage_descriptor_info* info = stillimage_frame_descriptor(first.get());
        std::vector<unsigned char> area(info->area, info->area + info->area_size);
        EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK) << wanted.name;
        EXPECT_EQ(served.wait_end(), 0) << wanted.name << '\n' << served.printed();
        return area;
    }

    static void expect_served(const std::vector<served_picture>& pictures)
    {
        for (const served_picture& wanted : pictures) {
            const std::vector<unsigned char> area = serve(wanted, "85");
            EXPECT_TRUE(serve(wanted, "170") == area) << wanted.name;
        }
    }

    static void expect_refused(const std::vector<refused_picture>& pictures)
    {
        for (const refused_picture& wanted : pictures) {
            const worker_home home;
            expect_refused_in(home, wanted);
            if (wanted.status == -SIGABRT) {
                expect_refused_in(home, wanted); // leftovers of the first run do not matter
            } else {
                EXPECT_TRUE(home.sockets().empty()) << wanted.name;
            }
        }
    }

    static void expect_refused_in(const worker_home& home, const refused_picture& wanted)
    {
        const ended_worker ended = run_worker(home, {{"--file", path(wanted.name)}});
        EXPECT_EQ(ended.status, wanted.status) << wanted.name;
        EXPECT_THAT(ended.printed, EndsWith(wanted.message)) << wanted.name;
    }
};

TEST_F(Corpus, PngsAreServed)
{
    expect_served({
        {"png/basi0g01.png", 32, 32, GREY},
        {"png/basi0g04.png", 32, 32, GREY},
        {"png/basi0g08.png", 32, 32, GREY},
        {"png/basi2c08.png", 32, 32, COLOUR},
        {"png/basi2c16.png", 32, 32, COLOUR},
        {"png/basi3p04.png", 32, 32, COLOUR},
        {"png/basi3p08.png", 32, 32, COLOUR},
        {"png/basi4a08.png", 32, 32, GREY_ALPHA},
        {"png/basi6a16.png", 32, 32, COLOUR_ALPHA},
        {"png/basn0g01.png", 32, 32, GREY},
        {"png/basn0g02.png", 32, 32, GREY},
        {"png/basn0g04.png", 32, 32, GREY},
        {"png/basn0g08.png", 32, 32, GREY},
        {"png/basn0g16.png", 32, 32, GREY},
        {"png/basn2c08.png", 32, 32, COLOUR},
        {"png/basn2c16.png", 32, 32, COLOUR},
        {"png/basn3p01.png", 32, 32, COLOUR},
        {"png/basn3p02.png", 32, 32, COLOUR},
        {"png/basn3p04.png", 32, 32, COLOUR},
        {"png/basn3p08.png", 32, 32, COLOUR},
        {"png/basn4a08.png", 32, 32, GREY_ALPHA},
        {"png/basn4a16.png", 32, 32, GREY_ALPHA},
        {"png/basn6a08.png", 32, 32, COLOUR_ALPHA},
        {"png/basn6a16.png", 32, 32, COLOUR_ALPHA},
        {"png/palette-index-past-the-palette.png", 10, 10, COLOUR},
        {"png/photo-rgb.png", 768, 512, COLOUR},
        {"png/rgba-alpha-253.png", 71, 53, COLOUR_ALPHA},
        {"png/rgba-alpha-254.png", 71, 53, COLOUR, 0, 1, alpha_dropped},
        {"png/s01i3p01.png", 1, 1, COLOUR},
        {"png/s05i3p02.png", 5, 5, COLOUR},
        {"png/tbbn3p08.png", 32, 32, COLOUR},
        {"png/wide-16384.png", 16384, 1, GREY},
        {"png/rgb-adam7-cut.png", 36, 28, COLOUR, 0, 1, cut_png},
        {"png/rgb-cut.png", 640, 480, COLOUR, 0, 1, cut_png},
        {"png/xcsn0g01.png", 32, 32, GREY, 0, 1, png_of_damaged_data},
    });
}

TEST_F(Corpus, PngsAreRefused)
{
    expect_refused({
        {"png/interlace-method-2.png", 1, refused_png},
        {"png/wide-16385.png", 1, refused_png_size},
        {"png/xc9n2c08.png", 1, refused_png},
        {"png/xhdn0g08.png", 1, png_of_damaged_header},
        {"png/xs1n0g01.png", 1, "FIXME: Unknown file type id\n"},
        {"png/zero-width.png", 1, refused_png_size},
    });
}

TEST_F(Corpus, TiffsAreServed)
{
    expect_served({
        {"tiff/cmyk-alpha.tif", 71, 53, COLOUR_ALPHA},
        {"tiff/cmyk-jpeg.tif", 150, 63, COLOUR},
        {"tiff/cmyk.tif", 73, 43, COLOUR},
        {"tiff/fax-fill-order-2.tif", 6, 4, GREY},
        {"tiff/fax-group-3.tiff", 153, 55, GREY},
        {"tiff/fax-group-4.tiff", 153, 55, GREY},
        {"tiff/grey-2-strips.tiff", 150, 103, GREY},
        {"tiff/grey-4-bits.tif", 73, 43, GREY},
        {"tiff/grey-alpha-separate-planes.tiff", 64, 64, GREY_ALPHA},
        {"tiff/grey-deflate.tiff", 160, 120, GREY},
        {"tiff/grey-tall-strip.tif", 33, 100, GREY},
        {"tiff/one-bit-packbits.tiff", 153, 55, GREY},
        {"tiff/one-bit.tiff", 153, 55, GREY},
        {"tiff/palette-4-bits.tif", 73, 43, COLOUR},
        {"tiff/palette-8-bits.tif", 73, 43, COLOUR},
        {"tiff/palette-deflate.tiff", 150, 103, COLOUR},
        {"tiff/rgb-16-bits.tiff", 150, 103, COLOUR},
        {"tiff/rgb-big-endian.tiff", 150, 103, COLOUR},
        {"tiff/rgb-lzw.tiff", 150, 100, COLOUR},
        {"tiff/rgb-separate-planes.tif", 73, 43, COLOUR},
        {"tiff/rgba-lzw-predictor.tiff", 400, 300, COLOUR, 0, 1, alpha_dropped},
        {"tiff/ycbcr-444.tif", 71, 53, COLOUR},
        {"tiff/ycbcr-jpeg-damaged.tif", 300, 225, COLOUR, 0, 1,
         "TIFFReadEncodedStrip() returned too many bytes\n"},
    });
}

TEST_F(Corpus, TiffsAreRefused)
{
    expect_refused({
        {"tiff/big-tiff.tif", 1, "FIXME: Unknown file type id\n"},
        {"tiff/cmyk-ink-set-2.tif", 1, "Unknown TIFF color format\nTIFF examination failed\n"},
        {"tiff/cmyk-no-ink-set.tif", 1, "Unknown TIFF color format\nTIFF examination failed\n"},
        {"tiff/logluv.tiff", 1, "Unknown TIFF color format\nTIFF examination failed\n"},
        {"tiff/seven-samples.tif", 1, "Too many channels\nTIFF examination failed\n"},
        {"tiff/tiled.tiff", 1, "TIFF strip height not available\nTIFF examination failed\n"},
        {"tiff/zero-width.tiff", 1, "TIFF did not open file\nTIFF examination failed\n"},
        {"tiff/ycbcr-420.tif", -SIGABRT, subsampled_tiff},
        {"tiff/ycbcr-no-subsampling-tag.tif", -SIGABRT, subsampled_tiff},
        {"tiff/ycbcr-old-jpeg.tif", -SIGABRT, subsampled_tiff},
    });
}

TEST_F(Corpus, GifsAreServed)
{
    expect_served({
        {"gif/animated-local-palettes.gif", 64, 48, COLOUR, 99, 4, alpha_dropped},
        {"gif/animated-restore-previous.gif", 100, 100, COLOUR_ALPHA, 399, 4},
        {"gif/animated-varying-delays.gif", 100, 100, COLOUR, 309, 4, alpha_dropped},
        {"gif/delay-0.gif", 4, 4, COLOUR, 19, 2, alpha_dropped},
        {"gif/disposal-1.gif", 8, 8, COLOUR, 99, 2, alpha_dropped},
        {"gif/disposal-2-transparent.gif", 38, 32, COLOUR_ALPHA, 439, 10},
        {"gif/disposal-2.gif", 8, 8, COLOUR, 99, 2, alpha_dropped},
        {"gif/disposal-3.gif", 8, 8, COLOUR, 99, 2, alpha_dropped},
        {"gif/frames-beyond-the-screen.gif", 2, 2, COLOUR, 39, 4, alpha_dropped},
        {"gif/interlaced-cut.gif", 36, 28, COLOUR, 9, 1, broken_gif},
        {"gif/interlaced.gif", 8, 8, COLOUR, 9, 1, alpha_dropped},
        {"gif/mixed-disposal.gif", 32, 32, COLOUR_ALPHA, 499, 5},
        {"gif/mixed-palettes.gif", 4, 4, COLOUR, 149, 3, alpha_dropped},
        {"gif/no-trailer.gif", 4, 4, COLOUR, 9, 1, broken_gif},
        {"gif/restore-background.gif", 4, 1, COLOUR, 29, 2, alpha_dropped},
        {"gif/still-8x8.gif", 8, 8, COLOUR, 9, 1, alpha_dropped},
        {"gif/still.gif", 36, 28, COLOUR, 9, 1, alpha_dropped},
        {"gif/transparent-colour-carried-over.gif", 24, 16, COLOUR_ALPHA, 79, 3},
        {"gif/transparent-frame.gif", 8, 8, COLOUR, 99, 2, alpha_dropped},
        {"gif/varying-delays.gif", 4, 4, COLOUR, 359, 4, alpha_dropped},
        {"gif/version-87a.gif", 4, 4, COLOUR, 9, 1, alpha_dropped},
    });
}

TEST_F(Corpus, GifsAreRefused)
{
    expect_refused({
        {"gif/empty-screen.gif", 1, "Invalid GIF state\nGIF examination failed\n"},
        {"gif/no-frames.gif", 1, "Invalid GIF state\nGIF examination failed\n"},
    });
}

TEST_F(Corpus, WebpsAreServed)
{
    expect_served({
        {"webp/animation.webp", 200, 200, COLOUR_ALPHA, 0, 1, failed_webp},
        {"webp/lossless-alpha.webp", 386, 395, COLOUR_ALPHA},
        {"webp/lossless-bricks.webp", 160, 120, COLOUR},
        {"webp/lossless-cut.webp", 71, 53, COLOUR, 0, 1, failed_webp},
        {"webp/lossless-two-colours.webp", 75, 100, COLOUR},
        {"webp/lossy-128x128.webp", 128, 128, COLOUR},
        {"webp/lossy-176x144.webp", 176, 144, COLOUR},
        {"webp/lossy-alpha-128x128.webp", 128, 128, COLOUR_ALPHA},
        {"webp/lossy-alpha-odd-height.webp", 400, 301, COLOUR_ALPHA},
        {"webp/lossy-alpha.webp", 100, 100, COLOUR_ALPHA},
        {"webp/lossy-bricks.webp", 160, 120, COLOUR},
        {"webp/lossy-cut.webp", 71, 53, COLOUR, 0, 1, failed_webp},
        {"webp/size-13x1.webp", 13, 1, COLOUR},
        {"webp/size-1x1.webp", 1, 1, COLOUR},
    });
}

TEST_F(Corpus, OtherRiffFilesAreRefused)
{
    expect_refused({{"webp/riff-avi.webp", 1, "FIXME: Unknown file type id\n"}});
}

} // namespace
