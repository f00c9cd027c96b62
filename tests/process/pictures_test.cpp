// Real pictures through the real worker: its exit status, and every byte that clients can see.
#include <csignal>
#include <cstring>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "client/stillimage_client.h"
#include "tests/support/file_contents.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_literal.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"
#include "tests/unit/framebuffer/mipmap_model.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace {

std::string data_path(const std::string& name)
{
    return STILLIMAGE_TEST_DATA "/jpeg/" + name;
}

class Pictures : public jpeg_test {
protected:
    // Lays the frame buffer out in this process as the worker does, and draws the picture into a
    // copy with the literal decoder. The scanline lists are copied from `served`: they have tests
    // of their own, and the spare rows of the levels are computed from them.
    std::vector<unsigned char> expected_area(const jpeg_writer::file_bytes& file,
                                             const unsigned char* served)
    {
        EXPECT_EQ(examine(file), 0) << printed;
        printed_by([] {
            layout_full_size();
            layout_mipmaps();
        });
        std::vector<unsigned char> area = draw_literally(file);
        copy_scanline_area(served, area, image_scanline_data_buffer_offset,
                           image_scanline_data_buffer_size);
        for (int i = 0; i < mipmaps; ++i) {
            copy_scanline_area(served, area, mipmap[i].scanline_data_offset,
                               mipmap[i].scanline_data_size);
        }
        main_image_mipmap = full_size_picture();
        model_all_mipmaps(area);
        return area;
    }

    static void copy_scanline_area(const unsigned char* from, std::vector<unsigned char>& to,
                                   uint64_t offset, uint64_t size)
    {
        memcpy(to.data() + offset, from + offset, size);
    }

    static mipmap_image full_size_picture()
    {
        mipmap_image picture = {};
        picture.width = image_width;
        picture.height = image_height;
        picture.buffer_height = image_buffer_height;
        picture.offset_Y = image_offset_Y;
        picture.offset_U = image_is_monochrome != 0 ? absent_plane : image_offset_U;
        picture.offset_V = image_is_monochrome != 0 ? absent_plane : image_offset_V;
        picture.offset_A = absent_plane;
        picture.stride_Y = image_stride_Y;
        picture.stride_U = image_stride_U;
        picture.stride_V = image_stride_V;
        picture.chroma_x_shift = image_chroma_x_shift;
        picture.chroma_y_shift = image_chroma_y_shift;
        return picture;
    }

    // Takes a frame for an output of this size and compares its description with `level`.
    static void expect_level(stillimage_client* client, int width, int height,
                             const mipmap_image& level)
    {
        stillimage_frame* frame = nullptr;
        ASSERT_EQ(stillimage_get_frame(client, 0, width, height, 10'000, &frame), STILLIMAGE_OK)
            << stillimage_last_error(client);
        const stillimage_picture* picture = stillimage_frame_picture(frame);
        const unsigned char* area = stillimage_frame_descriptor(frame)->area;
        EXPECT_EQ(picture->width, static_cast<uint32_t>(level.width));
        EXPECT_EQ(picture->height, static_cast<uint32_t>(level.height));
        EXPECT_EQ(picture->plane[STILLIMAGE_Y], area + level.offset_Y);
        EXPECT_EQ(picture->stride[STILLIMAGE_Y], level.stride_Y);
        EXPECT_EQ(picture->stride[STILLIMAGE_U], level.stride_U);
        if (level.stride_U != 0) {
            EXPECT_EQ(picture->plane[STILLIMAGE_U], area + level.offset_U);
            EXPECT_EQ(picture->plane[STILLIMAGE_V], area + level.offset_V);
        }
        EXPECT_EQ(picture->plane[STILLIMAGE_A], nullptr);
        EXPECT_EQ(picture->full_width, static_cast<uint32_t>(image_width));
        EXPECT_EQ(picture->full_height, static_cast<uint32_t>(image_height));
        stillimage_frame_release(frame);
    }

    void expect_served_byte_for_byte(const std::string& path,
                                     const std::vector<std::string>& switches = {},
                                     const std::vector<std::string>& environment = {})
    {
        reset_for_jpeg();
        const worker_home home;
        worker::setting how = {{"--file", path, "--sock", home.path("s"), "--no-autoshutdown"}};
        how.arguments.insert(how.arguments.end(), switches.begin(), switches.end());
        how.more_environment = environment;
        worker served(home, how);
        stillimage_client* connected = nullptr;
        ASSERT_EQ(stillimage_connect(home.path("s").c_str(), 30'000, &connected), STILLIMAGE_OK)
            << path;
        const held_client client(connected);
        ASSERT_EQ(stillimage_wait_ready(connected, 0, 60'000), STILLIMAGE_OK) << path;
        stillimage_frame* frame = nullptr;
        ASSERT_EQ(stillimage_get_frame(connected, 0, 0, 0, 30'000, &frame), STILLIMAGE_OK)
            << path << stillimage_last_error(connected);
        const stillimage_descriptor_info* info = stillimage_frame_descriptor(frame);
        const auto area = expected_area(read_test_file(path), info->area);
        ASSERT_EQ(info->area_size, area.size()) << path;
        EXPECT_TRUE(memcmp(info->area, area.data(), area.size()) == 0) << path;
        expect_level(connected, 0, 0, main_image_mipmap);
        for (int i = 0; i < mipmaps; ++i) {
            expect_level(connected, mipmap[i].width, mipmap[i].height, mipmap[i]);
        }
        stillimage_frame_release(frame);
        EXPECT_EQ(stillimage_quit(connected, 30'000), STILLIMAGE_OK);
        EXPECT_EQ(served.wait_end(), 0) << path << served.printed();
        EXPECT_TRUE(home.sockets().empty()) << path;
    }
};

TEST_F(Pictures, EveryByteOfAServedPictureIsAsExpected)
{
    for (const char* name : {"arithmetic-420.jpg",
                             "cmyk-32x32.jpg",
                             "cmyk-odd-width.jpg",
                             "grey-factors-2x2.jpg",
                             "peacock-420.jpg",
                             "peacock-420-cut.jpg",
                             "peacock-422.jpg",
                             "peacock-444.jpg",
                             "peacock-grey.jpg",
                             "peacock-progressive.jpg",
                             "peacock-progressive-cut.jpg",
                             "progressive-non-interleaved.jpg",
                             "restarts-444.jpg",
                             "size-1x1.jpg",
                             "size-17x17.jpg",
                             "wide-16384.jpg",
                             "ycck-420.jpg",
                             "ycck-422.jpg",
                             "ycck-440.jpg",
                             "ycck-444.jpg"}) {
        expect_served_byte_for_byte(data_path(name));
    }
}

TEST_F(Pictures, EveryByteOfAPhotographIsAsExpected)
{
    for (const char* name : {"harvesters-420.jpg", "landscape-420.jpg", "photo-422.jpg"}) {
        expect_served_byte_for_byte(data_path(name));
    }
}

TEST_F(Pictures, FormerHeapContentsAreNeverServed)
{
    for (const char* perturb : {"MALLOC_PERTURB_=85", "MALLOC_PERTURB_=170"}) {
        for (const char* name : {"cmyk-odd-width.jpg", "ycck-440.jpg", "size-17x17.jpg"}) {
            expect_served_byte_for_byte(data_path(name), {}, {perturb});
        }
    }
}

struct expectation {
    const char* name;
    int status;
    const char* message; // the end of its standard error
};

TEST_F(Pictures, RefusedPicturesEndWithStatusOneAndTheirMessage)
{
    const expectation refused[] = {
        {"all-factors-2x2.jpg", 1,
         "Unsupported chroma subsampling scheme\nJPEG examination failed\n"},
        {"peacock-mixed-factors.jpg", 1,
         "Unsupported chroma subsampling scheme\nJPEG examination failed\n"},
        {"luma-4x1.jpg", 1, "Unsupported chroma subsampling scheme\nJPEG examination failed\n"},
        {"bad-comment-length.jpg", 1, "FIXME: Unknown file type id\n"},
        {"missing-scan.jpg", 1,
         "JPEG library panicked and attempted to exit. Decode failed\nJPEG examination failed\n"},
        {"zero-width.jpg", 1,
         "JPEG library panicked and attempted to exit. Decode failed\nJPEG examination failed\n"},
        {"rgb-components.jpg", 1,
         "JPEGLIB: ERROR: Unsupported colorspace\nJPEG examination failed\n"},
        {"wide-16385.jpg", 1, "JPEG image is WAY TOO LARGE\nJPEG examination failed\n"},
        {"wide-32540.jpg", 1, "JPEG image is WAY TOO LARGE\nJPEG examination failed\n"},
        {"ycck-420-small-k.jpg", 1,
         "Unsupported chroma subsampling on K channel\nJPEG examination failed\n"},
        {"two-frame-headers.jpg", -SIGABRT, "Unexpected longjmp from JPEGLIB error handler\n"},
    };
    for (const expectation& expected : refused) {
        const worker_home home;
        const ended_worker ended = run_worker(home, {{"--file", data_path(expected.name)}});
        EXPECT_EQ(ended.status, expected.status) << expected.name;
        EXPECT_THAT(ended.printed, EndsWith(expected.message)) << expected.name;
    }
}

TEST_F(Pictures, PicturesThatCannotBeStartedAreServedUndecoded)
{
    const std::pair<const char*, const char*> pictures[] = {
        {"bogus-huffman-table.jpg", "'Bogus Huffman table definition')\n"},
        {"twelve-bits.jpg", "'Unsupported JPEG data precision 12')\n"},
    };
    for (const auto& [name, library_line] : pictures) {
        const worker_home home;
        const worker served(home, data_path(name));
        ASSERT_TRUE(served.wait_ready()) << name;
        EXPECT_THAT(served.printed(),
                    HasSubstr(std::string(library_line) +
                              "jpeg_start_decompress() threw an error. giving up\n"
                              "WARNING: Failed to decode JPEG\n"));
        const held_client client = connect_to(served.socket());
        stillimage_frame* frame = nullptr;
        ASSERT_EQ(stillimage_get_frame(client.get(), 0, 0, 0, 30'000, &frame), STILLIMAGE_OK);
        EXPECT_EQ(stillimage_frame_picture(frame)->plane[STILLIMAGE_Y][0], 0);
        stillimage_frame_release(frame);
    }
}

TEST_F(Pictures, SubsampledYcckIsReportedOncePerRowGroup)
{
    const worker_home home;
    const worker served(home, data_path("ycck-420.jpg"));
    ASSERT_TRUE(served.wait_ready());
    const std::string line = "ERROR: YCCK -> YUV: Unsupported chroma subsample\n";
    const std::string text = served.printed();
    size_t lines = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, 50U); // 800 rows in groups of 16
}

} // namespace
