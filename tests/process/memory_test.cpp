// Workers in control groups with little memory: however much memory a codec requests, the kernel
// never kills the worker. It serves the picture, possibly black, or ends with its message.
#include <cmath>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/memory_group.h"
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

using file_bytes = std::vector<unsigned char>;

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint16_t tag_compression = 259;
constexpr uint16_t tag_strip_offsets = 273;
constexpr uint16_t tag_strip_byte_counts = 279;
constexpr uint16_t tag_width = 256;
constexpr uint16_t tag_height = 257;
constexpr uint16_t tag_rows_per_strip = 278;
constexpr uint32_t uncompressed = 1;
constexpr uint32_t lzw = 5;
constexpr uint32_t tiff_rgb = 2;

// --- large pictures in small files --------------------------------------------------------------

file_bytes large_jpeg(uint32_t side, J_COLOR_SPACE colour_space)
{
    jpeg_writer::picture small;
    small.colour_space = colour_space;
    small.sampling.assign(colour_space == JCS_YCCK ? 4 : 3, {1, 1});
    small.progressive = true;
    file_bytes file = jpeg_writer::write(small);
    jpeg_writer::set_size(file, static_cast<int>(side), static_cast<int>(side));
    return file;
}

file_bytes progressive_jpeg(uint32_t side)
{
    return large_jpeg(side, JCS_YCbCr);
}

file_bytes progressive_ycck_jpeg(uint32_t side)
{
    return large_jpeg(side, JCS_YCCK);
}

file_bytes bilevel_png(uint32_t side)
{
    png_spec spec;
    spec.width = side;
    spec.height = side;
    spec.depth = 1;
    spec.colour_type = 0;
    spec.rows.assign(size_t{side} * ((side + 7) / 8 + 1), 0);
    return write_png(spec);
}

file_bytes black_webp(uint32_t side)
{
    return one_colour_webp(side, side);
}

// An image as large as the screen, with data for one pixel only.
file_bytes empty_gif(uint32_t side)
{
    gif_spec screen;
    gif_frame_spec frame;
    screen.width = screen.height = frame.width = frame.height = side;
    frame.indices = {0};
    screen.frames = {frame};
    return write_gif(screen);
}

constexpr uint32_t tiff_header_bytes = 4096;

file_bytes one_strip_tiff(uint32_t side, uint32_t compression)
{
    tiff_spec spec = plain_tiff(16, 16, 3, tiff_rgb);
    spec.set_long(tag_width, {side});
    spec.set_long(tag_height, {side});
    spec.set_long(tag_rows_per_strip, {side});
    spec.set_short(tag_compression, {compression});
    spec.set_long(tag_strip_offsets, {tiff_header_bytes});
    spec.set_long(tag_strip_byte_counts, {3 * side * side});
    return write_tiff(spec);
}

file_bytes plain_tiff_of_one_strip(uint32_t side)
{
    return one_strip_tiff(side, uncompressed);
}

file_bytes lzw_tiff_of_one_strip(uint32_t side)
{
    return one_strip_tiff(side, lzw);
}

struct large_picture {
    const char* name;
    file_bytes (*write)(uint32_t side);
    double buffer_bytes; // per pixel in the frame buffer, reduced levels included
    uint64_t hole_bytes; // per pixel in the file, as a hole at its end
    bool codec_grows;    // the codec takes more memory than the frame buffer
};

constexpr large_picture large_pictures[] = {
    {"black.webp", black_webp, 3, 0, true},
    {"empty.gif", empty_gif, 8, 0, false},
    {"progressive.jpg", progressive_jpeg, 6, 0, true},
    {"ycck.jpg", progressive_ycck_jpeg, 6, 0, true},
    {"bilevel.png", bilevel_png, 2, 0, false},
    {"plain.tif", plain_tiff_of_one_strip, 6, 3, false},
    {"lzw.tif", lzw_tiff_of_one_strip, 6, 3, false},
};

// The largest side of a picture whose frame buffer takes at most `buffer` bytes.
uint32_t side_for(const large_picture& picture, uint64_t buffer)
{
    constexpr double max_side = 16383;
    const double side = std::sqrt(static_cast<double>(buffer) / picture.buffer_bytes) * 0.99;
    return static_cast<uint32_t>(std::min(side, max_side));
}

class MemoryGroup : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a sanitizer takes terabytes of address space";
        }
        const memory_group probe(64 * mebibyte);
        if (!probe.reason().empty()) {
            GTEST_SKIP() << probe.reason();
        }
    }

    std::string write(const char* name, const file_bytes& file) const
    {
        return home.folder().write(name, {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    std::string write(const large_picture& picture, uint32_t side) const
    {
        const std::string path = write(picture.name, picture.write(side));
        if (picture.hole_bytes != 0) {
            std::filesystem::resize_file(path,
                                         tiff_header_bytes + picture.hole_bytes * side * side);
        }
        return path;
    }

    static void join(const memory_group& group)
    {
        std::ofstream(group.members_file()) << getpid() << std::flush;
    }

    // One run in a group of its own with `bytes` of memory.
    ended_worker run(uint64_t bytes, const std::string& path,
                     const std::vector<std::string>& more = {}) const
    {
        return run_in(memory_group(bytes), path, more);
    }

    ended_worker run_in(const memory_group& group, const std::string& path,
                        const std::vector<std::string>& more = {}) const
    {
        worker::setting how = {{"--file", path, "--oneshot"}};
        how.arguments.insert(how.arguments.end(), more.begin(), more.end());
        how.group = group.members_file();
        ended_worker ended = run_worker(home, how);
        EXPECT_EQ(group.kills(), 0U);
        return ended;
    }

    void expect_served_or_refused(uint64_t bytes, const large_picture& picture, uint32_t side,
                                  const std::vector<std::string>& more = {}) const
    {
        SCOPED_TRACE(std::string(picture.name) + ", " + std::to_string(side) + " each way");
        const ended_worker ended = run(bytes, write(picture, side), more);
        EXPECT_THAT(ended.status, AnyOf(0, 1)) << ended.printed;
        EXPECT_THAT(ended.printed,
                    AnyOf(HasSubstr("Oneshot\n"), EndsWith("CNB allocation failed\n")));
    }

    worker_home home;
};

class MemoryGroupOfSize : public MemoryGroup, public testing::WithParamInterface<uint64_t> {};

TEST_P(MemoryGroupOfSize, LargestPictureOfEachFormatIsServedOrRefused)
{
    const uint64_t bytes = GetParam() * mebibyte;
    for (const large_picture& picture : large_pictures) {
        if (bytes < 1024 * mebibyte || picture.codec_grows) {
            expect_served_or_refused(bytes, picture, side_for(picture, bytes / 2));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Mebibytes, MemoryGroupOfSize,
                         testing::Values(64, 128, 256, 512, 1024, 2048),
                         testing::PrintToStringParamName());

// From sizes at which everything fits to sizes at which the frame buffer alone is too large.
TEST_F(MemoryGroup, PictureOfAnySizeIsServedOrRefused)
{
    constexpr uint64_t bytes = 64 * mebibyte;
    for (const large_picture& picture : large_pictures) {
        for (uint64_t buffer = 20 * mebibyte; buffer <= bytes; buffer += 10 * mebibyte) {
            expect_served_or_refused(bytes, picture, side_for(picture, buffer),
                                     {"--domain-limit", "1G"});
        }
    }
}

TEST_F(MemoryGroup, LosslessWebpIsBlackWhenItsPixelsDoNotFit)
{
    const large_picture& webp = large_pictures[0];
    EXPECT_THAT(run(64 * mebibyte, write(webp, 2700)).printed, HasSubstr("WebP decoded\n"));
    EXPECT_THAT(run(64 * mebibyte, write(webp, 3300)).printed,
                HasSubstr("WARNING: Failed to decode WebP image\n"));
}

TEST_F(MemoryGroup, LimitOfTheParentGroupApplies)
{
    const memory_group outer(64 * mebibyte);
    const memory_group inner(1024 * mebibyte, outer);
    ASSERT_EQ(inner.reason(), "");
    const ended_worker ended = run_in(inner, write(large_pictures[0], 3300));
    EXPECT_EQ(ended.status, 0) << ended.printed;
    EXPECT_THAT(ended.printed, HasSubstr("WARNING: Failed to decode WebP image\n"));
    EXPECT_EQ(outer.kills(), 0U);
}

TEST_F(MemoryGroup, MemoryUsedByOthersInTheGroupIsNotAvailable)
{
    const memory_group group(128 * mebibyte);
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    child_process other([&] {
        join(group);
        const std::vector<char> taken(64 * mebibyte, 'x');
        const bool given = ::write(ends[1], &taken.back(), 1) == 1;
        pause();
        return given ? 0 : 1;
    });
    char byte = 0;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    const ended_worker ended = run_in(group, write(large_pictures[0], 3300));
    EXPECT_EQ(ended.status, 0) << ended.printed;
    EXPECT_THAT(ended.printed, HasSubstr("WARNING: Failed to decode WebP image\n"));
    other.kill_now();
    close(ends[0]);
    close(ends[1]);
}

// Examination reads the frames into memory before there is a frame buffer. It keeps the part of
// each frame that lies on the screen, and drops frames that no frame buffer could hold.
TEST_F(MemoryGroup, GifFramesLargerThanMemoryAreNotKept)
{
    gif_spec spec;
    gif_frame_spec frame;
    frame.width = frame.height = 2000;
    frame.all_zero = true;
    spec.frames.assign(50, frame);
    const ended_worker small = run(64 * mebibyte, write("beyond_the_screen.gif", write_gif(spec)));
    EXPECT_EQ(small.status, 0) << small.printed;
    EXPECT_THAT(small.printed, Not(HasSubstr("GIF reading error (?)\n")));
    spec.width = spec.height = 2000;
    const ended_worker large = run(64 * mebibyte, write("on_the_screen.gif", write_gif(spec)));
    EXPECT_EQ(large.status, 1) << large.printed;
    EXPECT_THAT(large.printed, Not(HasSubstr("GIF reading error (?)\n")));
    EXPECT_THAT(large.printed, EndsWith("CNB allocation failed\n"));
}

// Examination also reads the values of tags. Here a thousand tags share their bytes.
TEST_F(MemoryGroup, TiffTagsThatShareTheirBytesAreRefused)
{
    constexpr uint16_t first_private_tag = 40000;
    tiff_spec spec = plain_tiff(1024, 1024, 1, 1);
    for (uint16_t i = 0; i < 1'000; ++i) {
        spec.tags[static_cast<uint16_t>(first_private_tag + i)] = {TIFF_VALUE_BYTE, {}, 1U << 20};
    }
    const ended_worker ended = run(64 * mebibyte, write("tags.tif", write_tiff(spec)));
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("TIFF did not open file\nTIFF examination failed\n"));
}

// This tag is as long as the file allows, and longer than the memory of the group.
TEST_F(MemoryGroup, TiffTagLargerThanMemoryDoesNotKillTheWorker)
{
    constexpr uint16_t first_private_tag = 40000;
    constexpr uint32_t tag_bytes = 80 * mebibyte;
    tiff_spec spec = plain_tiff(16, 16, 1, 1);
    spec.tags[first_private_tag] = {TIFF_VALUE_BYTE, {}, tag_bytes};
    const std::string path = write("tags.tif", write_tiff(spec));
    std::filesystem::resize_file(path, tag_bytes + mebibyte);
    const ended_worker ended = run(64 * mebibyte, path);
    EXPECT_EQ(ended.status, 0) << ended.printed;
    EXPECT_THAT(ended.printed, HasSubstr("tag ignored\n"));
    EXPECT_THAT(ended.printed, HasSubstr("Oneshot\n"));
}

TEST_F(MemoryGroup, ClientsAreServedWhenACodecGotNoMemory)
{
    const memory_group group(64 * mebibyte);
    const std::string path = write(large_pictures[0], 4500);
    worker::setting how = {
        {"--file", path, "--sock", home.path("s"), "--no-autoshutdown", "--domain-limit", "1G"}};
    how.group = group.members_file();
    worker served(home, how);
    std::vector<held_client> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(connect_to(home.path("s")));
        const held_frame frame = take_frame(clients.back());
        ASSERT_NE(frame, nullptr) << served.printed();
        EXPECT_EQ(stillimage_frame_picture(frame.get())->width, 4500U);
        EXPECT_EQ(stillimage_set_metadata(clients.back().get(), "colour",
                                          std::string(10'000, 'x').c_str(), 30'000),
                  STILLIMAGE_OK);
    }
    EXPECT_THAT(served.printed(), HasSubstr("WARNING: Failed to decode WebP image\n"));
    EXPECT_EQ(stillimage_quit(clients.front().get(), 30'000), STILLIMAGE_OK);
    EXPECT_EQ(served.wait_end(), 0) << served.printed();
    EXPECT_EQ(group.kills(), 0U);
}

} // namespace
