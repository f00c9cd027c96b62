// Pictures that attack the decoder: too large, too costly, or changed while they are decoded. Each
// is served, or refused with its message, in bounded time and memory.
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/gif_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr uint16_t tag_rows_per_strip = 278;
constexpr uint16_t first_private_tag = 40000;

class HostileDecodes : public testing::Test {
protected:
    std::string write(const char* name, const std::vector<unsigned char>& file) const
    {
        return home.folder().write(name, {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    // A PNG of zeros: the file is a thousand times smaller than the picture.
    static std::vector<unsigned char> png_bomb(uint32_t side, uint8_t colour_type,
                                               size_t bytes_per_pixel)
    {
        png_spec spec;
        spec.width = side;
        spec.height = side;
        spec.colour_type = colour_type;
        spec.rows.assign(side * (side * bytes_per_pixel + 1), 0);
        return write_png(spec);
    }

    // The same with one bit per pixel, interlaced.
    static std::vector<unsigned char> interlaced_png_bomb(uint32_t side)
    {
        static constexpr uint32_t rows_and_columns_every[7][2] = {{8, 8}, {8, 8}, {8, 4}, {4, 4},
                                                                  {4, 2}, {2, 2}, {2, 1}};
        png_spec spec;
        spec.width = side;
        spec.height = side;
        spec.depth = 1;
        spec.colour_type = 0;
        spec.interlace = 1;
        size_t size = 0;
        for (const auto& [row_step, column_step] : rows_and_columns_every) {
            size += side / row_step * (side / column_step / 8 + 1);
        }
        spec.rows.assign(size, 0);
        return write_png(spec);
    }

    static size_t shared_mappings_of(const worker& served)
    {
        std::ifstream maps("/proc/" + std::to_string(served.pid()) + "/maps");
        size_t count = 0;
        for (std::string line; std::getline(maps, line);) {
            count += line.find("rw-s") != std::string::npos ? 1 : 0;
        }
        return count;
    }

    static tiff_spec grey_tiff(uint32_t width, uint32_t height, uint32_t rows_per_strip)
    {
        tiff_spec spec = plain_tiff(width, height, 1, 1);
        spec.set_long(tag_rows_per_strip, {rows_per_strip});
        spec.strips.assign((height + rows_per_strip - 1) / rows_per_strip,
                           std::vector<unsigned char>(size_t{width} * rows_per_strip, 200));
        return spec;
    }

    worker_home home;
};

TEST_F(HostileDecodes, PictureOfTheLargestSizeIsServedFromASmallFile)
{
    const std::vector<unsigned char> file = png_bomb(16384, 0, 1);
    EXPECT_LT(file.size(), 300'000U);
    worker served(home, write("bomb.png", file));
    ASSERT_TRUE(served.wait_ready(120'000));
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    const stillimage_picture* picture = stillimage_frame_picture(frame.get());
    EXPECT_EQ(picture->width, 16384U);
    EXPECT_EQ(picture->plane[STILLIMAGE_Y][16383UL * picture->stride[STILLIMAGE_Y] + 16383], 16);
    EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK);
    EXPECT_EQ(served.wait_end(), 0);
}

// The decoder requests a mapping for each of the 30720 rows of the passes.
TEST_F(HostileDecodes, InterlacedPictureOfTheLargestSizeIsMappedOnce)
{
    worker served(home, write("bomb.png", interlaced_png_bomb(16384)), worker::may_be_inspected);
    ASSERT_TRUE(served.wait_printed("Generating mipmap")); // after the first pass
    EXPECT_EQ(shared_mappings_of(served), 1U);
    ASSERT_TRUE(served.wait_printed("[final]", 120'000));
    EXPECT_EQ(shared_mappings_of(served), 1U);
    EXPECT_THAT(served.printed(), Not(HasSubstr("Failed to memory-map")));
    EXPECT_THAT(served.printed(), Not(HasSubstr("PNG ERROR")));
    const held_client client = connect_to(served.socket());
    EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK);
    EXPECT_EQ(served.wait_end(), 0);
}

TEST_F(HostileDecodes, PictureThatTheDomainCannotHoldIsRefused)
{
    const ended_worker ended = run_worker(
        home, {{"--file", write("bomb.png", png_bomb(16384, 0, 1)), "--domain-limit", "256M"}});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("CNB allocation failed\n"));
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(HostileDecodes, SignalEndsTheDecodingOfALargePng)
{
    worker served(home, write("bomb.png", png_bomb(16384, 0, 1)));
    ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_TRUE(home.sockets().empty());
}

// The file is truncated, then grown with other bytes, while strips are read from it.
TEST_F(HostileDecodes, TiffThatChangesDuringDecodingIsStillServed)
{
    const std::vector<unsigned char> whole = write_tiff(grey_tiff(64, 400, 4));
    const std::string path = write("changing.tif", whole);
    worker served(home, path, {"--slow-decode"});
    ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    for (off_t size = 100; size <= 20'000; size += 1'000) {
        EXPECT_EQ(ftruncate(fd, size), 0);
        pause_ms(5);
        EXPECT_EQ(pwrite(fd, "changed", 7, size), 7);
    }
    close(fd);
    EXPECT_TRUE(served.wait_ready());
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0) << served.printed();
}

// Thousands of tags share one megabyte as their value. A copy for each tag would take gigabytes.
TEST_F(HostileDecodes, ThousandsOfTiffTagsThatShareTheirBytesAreRefused)
{
    tiff_spec spec = grey_tiff(1024, 1024, 1024);
    for (uint16_t i = 0; i < 3'000; ++i) {
        spec.tags[static_cast<uint16_t>(first_private_tag + i)] = {TIFF_VALUE_BYTE, {}, 1 << 20};
    }
    const std::vector<unsigned char> file = write_tiff(spec);
    worker::setting how = {{"--file", write("tags.tif", file), "--oneshot"}};
    how.address_space = address_space_of(256);
    const ended_worker ended = run_worker(home, how);
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("TIFF did not open file\nTIFF examination failed\n"));
    EXPECT_TRUE(home.sockets().empty());
}

#ifndef __SANITIZE_ADDRESS__ // the address sanitizer takes terabytes of address space
TEST_F(HostileDecodes, LosslessWebpBeyondTheAddressSpaceIsServedBlack)
{
    // 24 MB of frame buffer fit, another 64 MB of ARGB do not.
    const std::string path =
        write("large.webp",
              lossless_webp(4000, 4000, std::vector<unsigned char>(4000UL * 4000 * 4, 255)));
    worker::setting how = {{"--file", path, "--oneshot"}};
    bool failed = false;
    bool decoded = false;
    for (uint64_t megabytes = 40; megabytes <= 400 && !decoded; megabytes += 8) {
        how.address_space = megabytes << 20;
        const ended_worker ended = run_worker(home, how);
        const bool black =
            ended.printed.find("WARNING: Failed to decode WebP image\n") != std::string::npos;
        EXPECT_TRUE(!black || ended.status == 0) << ended.printed;
        failed = failed || black;
        decoded = ended.printed.find("WebP decoded\n") != std::string::npos;
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(decoded);
}
#endif

TEST_F(HostileDecodes, GifImageOfGigabytesInAFewBytesIsSkipped)
{
    gif_spec screen;
    screen.width = 4;
    screen.height = 4;
    gif_frame_spec giant;
    giant.width = 46340;
    giant.height = 46340;
    giant.indices = {0};
    screen.frames = {giant};
    const ended_worker ended =
        run_worker(home, {{"--file", write("giant.gif", write_gif(screen)), "--oneshot"}});
    EXPECT_THAT(ended.status, AnyOf(0, 1)) << ended.printed;
    EXPECT_THAT(ended.printed, HasSubstr("GIF reading error (?)\n"));
    EXPECT_TRUE(home.sockets().empty());
}

} // namespace
