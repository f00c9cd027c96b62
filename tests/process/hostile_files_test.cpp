// Malicious files: each is served or refused with its message, in bounded time and memory.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include "client/stillimage_client.h"
#include "tests/support/child_process.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/worker.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace {

const std::string giving_up = "jpeg_start_decompress() threw an error. giving up\n"
                              "WARNING: Failed to decode JPEG\n";

class HostileFiles : public testing::Test {
protected:
    std::string write(const char* name, const std::vector<unsigned char>& file) const
    {
        return home.folder().write(name, {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    // A progressive picture of a few bytes whose header declares a size of `side` x `side`.
    static jpeg_writer::file_bytes progressive(int side, size_t scans)
    {
        jpeg_writer::picture what = jpeg_writer::grey(64, 64);
        what.progressive = true;
        auto file = jpeg_writer::write(what);
        jpeg_writer::set_size(file, side, side);
        jpeg_writer::insert_before_end(file, jpeg_writer::empty_scans(scans));
        return file;
    }

    // The data of a zTXt chunk.
    static std::vector<unsigned char> packed_zeros(size_t size)
    {
        std::vector<unsigned char> data = {'k', 0, 0};
        uLongf packed = compressBound(size);
        data.resize(3 + packed);
        const std::vector<unsigned char> zeros(size);
        if (compress2(data.data() + 3, &packed, zeros.data(), size, 9) != Z_OK) {
            abort();
        }
        data.resize(3 + packed);
        return data;
    }

    worker_home home;
};

TEST_F(HostileFiles, SignalEndsTheReadingOfScans)
{
    constexpr size_t coefficients_kilobytes = 8192 / 1024 * 8192 * 2;
    const std::string path = write("scans.jpg", progressive(8192, 900));
    std::filesystem::resize_file(path, 192 << 20); // long enough for that many scans
    worker served(home, path);
    // The library has allocated its coefficients and is reading scans.
    ASSERT_TRUE(eventually([&] { return served.resident_kilobytes() > coefficients_kilobytes; }));
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(served.printed(), HasSubstr(giving_up)); // the library was left before it finished
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(HostileFiles, AHundredThousandScansStopAtTheLimit)
{
    worker served(home, write("scans.jpg", progressive(512, 100'000)));
    ASSERT_TRUE(served.wait_ready());
    EXPECT_THAT(served.printed(), HasSubstr(giving_up));
}

#ifndef __SANITIZE_ADDRESS__ // the address sanitizer takes terabytes of address space
TEST_F(HostileFiles, CoefficientsBeyondTheAddressSpaceAreReported)
{
    // 16 MB of picture with its levels fit; 32 MB of coefficients do not.
    worker::setting how = {{"--file", write("large.jpg", progressive(4096, 0)), "--oneshot"}};
    how.address_space = uint64_t{512} << 20;
    EXPECT_EQ(run_worker(home, how).status, 0);
    bool failed = false;
    for (uint64_t megabytes = 40; megabytes <= 200 && !failed; megabytes += 8) {
        how.address_space = megabytes << 20;
        const ended_worker ended = run_worker(home, how);
        failed = ended.printed.find(giving_up) != std::string::npos;
        EXPECT_TRUE(!failed || ended.status == 0) << ended.printed;
    }
    EXPECT_TRUE(failed);
}
#endif

TEST_F(HostileFiles, ScreenOfTerabytesIsRefused)
{
    gif_spec screen;
    screen.width = 65535;
    screen.height = 65535;
    gif_frame_spec dot;
    dot.indices = {0};
    screen.frames = {dot, dot};
    const ended_worker ended = run_worker(home, {{"--file", write("huge.gif", write_gif(screen))}});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("CNB allocation failed\n"));
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(HostileFiles, SizesTruncatedInTheRecordReachTheClientInFull)
{
    gif_spec screen;
    screen.width = 65535; // the stride, 65536, has 17 bits
    screen.height = 33;
    gif_frame_spec dot;
    dot.indices = {0};
    screen.frames = {dot};
    const worker served(home, write("wide.gif", write_gif(screen)));
    ASSERT_TRUE(served.wait_ready());
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(served.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
    stillimage_frame* frame = nullptr;
    ASSERT_EQ(stillimage_get_frame(client, 0, 0, 0, 30'000, &frame), STILLIMAGE_OK)
        << stillimage_last_error(client);
    const stillimage_picture* seen = stillimage_frame_picture(frame);
    EXPECT_EQ(seen->width, 65535U);
    EXPECT_EQ(seen->height, 33U);
    EXPECT_EQ(seen->stride[STILLIMAGE_Y], 65536U);
    stillimage_frame_release(frame);
    stillimage_close(client);
}

TEST_F(HostileFiles, LogOfBadChunksStaysUnderItsLimit)
{
    std::vector<unsigned char> file = png_signature();
    std::vector<unsigned char> bad;
    append_png_chunk(bad, {"gaMA", {0, 0, 0, 1}}); // reported while there is no header
    bad.back() ^= 1;                               // damages its checksum
    constexpr int chunks = 500'000;
    for (int i = 0; i < chunks; ++i) {
        file.insert(file.end(), bad.begin(), bad.end());
    }
    const std::string metadir = home.path("meta");
    const ended_worker ended = run_worker(home, {{"--file", write("bad.png", file), "--metadir",
                                                  metadir, "--stderr-to-log", "--identify-only"}});
    EXPECT_EQ(ended.status, 1); // no header
    uintmax_t size = 0;
    for (const char* name : {"log", "log.old"}) {
        const std::string path = metadir + "/" + name;
        size += std::filesystem::exists(path) ? std::filesystem::file_size(path) : 0;
    }
    EXPECT_LE(size, uintmax_t{16} << 20);
    EXPECT_GT(size, uintmax_t{8} << 20); // more messages than one log holds
    EXPECT_THAT(home.folder().read("meta/log"), EndsWith("PNG examination failed\n"));
}

// A hundred megabytes of texts before and after the image data, and a thousand that unpack to eight
// megabytes each.
TEST_F(HostileFiles, TextsOfAPngTakeNoMemory)
{
    std::vector<unsigned char> text(20 << 20, 'v');
    text[1] = 0;
    std::vector<unsigned char> texts;
    for (const char* kind : {"tEXt", "tEXt", "iTXt", "tEXt", "zTXt"}) {
        append_png_chunk(texts, {kind, text});
    }
    const std::vector<unsigned char> packed = packed_zeros(7'990'000);
    for (int i = 0; i < 1000; ++i) {
        append_png_chunk(texts, {"zTXt", packed});
    }
    png_spec spec;
    spec.rows = {0, 0, 0, 0};
    std::vector<unsigned char> file = write_png(spec);
    constexpr ptrdiff_t end_bytes = 12;
    constexpr ptrdiff_t header_ends = 8 + 25;
    file.insert(file.end() - end_bytes, texts.begin(), texts.end());
    file.insert(file.begin() + header_ends, texts.begin(), texts.end());
    worker::setting how = {{"--file", write("texts.png", file), "--oneshot"}};
    how.address_space = address_space_of(64);
    const ended_worker ended = run_worker(home, how);
    EXPECT_EQ(ended.status, 0) << ended.printed;
    EXPECT_THAT(ended.printed, testing::Not(HasSubstr("PNG WARNING")));
    EXPECT_THAT(ended.printed, testing::Not(HasSubstr("PNG ERROR")));
}

TEST_F(HostileFiles, PictureTruncatedDuringIdentificationCausesNoBusError)
{
    const auto whole = jpeg_writer::write(jpeg_writer::grey(500, 400));
    const std::string path = write("cut.jpg", whole);
    child_process cutter([&] {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        for (;;) {
            if (ftruncate(fd, 0) != 0 ||
                pwrite(fd, whole.data(), whole.size(), 0) != static_cast<ssize_t>(whole.size())) {
                return 1;
            }
        }
    });
    for (int round = 0; round < 60; ++round) {
        const ended_worker ended =
            run_worker(home, {{"--file", path, "--identify-only", "--force-update-metadata",
                               "--metadir", home.path("meta" + std::to_string(round))}});
        if (ended.status == -SIGABRT) {
            EXPECT_THAT(ended.printed, HasSubstr("sliding_window_v4_mmap_lazy_lseek"));
        } else {
            EXPECT_TRUE(ended.status == 0 || ended.status == 1) << ended.status << ended.printed;
        }
    }
    cutter.kill_now();
    cutter.wait();
}

TEST_F(HostileFiles, RowGroupsOf24And32RowsFailAnAssertion)
{
    for (const int rows : {3, 4}) {
        auto file = jpeg_writer::write(jpeg_writer::grey(64, 64));
        jpeg_writer::set_sampling(file, 0, {1, rows});
        const ended_worker ended =
            run_worker(home, {{"--file", write("tall.jpg", file), "--oneshot"}});
        EXPECT_EQ(ended.status, -SIGABRT) << ended.printed;
        EXPECT_THAT(ended.printed, HasSubstr("bin/vexa_stillimage: "));
        EXPECT_THAT(ended.printed, HasSubstr("irem <= 16"));
    }
    jpeg_writer::picture ink;
    ink.width = ink.height = 64;
    ink.colour_space = JCS_CMYK;
    ink.sampling = {{4, 4}, {4, 4}, {4, 4}, {4, 4}};
    ink.separate_scans = true;
    const ended_worker ended =
        run_worker(home, {{"--file", write("ink.jpg", jpeg_writer::write(ink)), "--oneshot"}});
    EXPECT_EQ(ended.status, -SIGABRT) << ended.printed;
    EXPECT_THAT(ended.printed,
                EndsWith("full_decode_jpeg_raw_cmyk: Assertion `irem <= 16' failed.\n"));
    // The next run is not affected by leftovers of the aborted one.
    const std::string sound = write("tall.jpg", jpeg_writer::write(jpeg_writer::grey(64, 64)));
    EXPECT_EQ(run_worker(home, {{"--file", sound, "--oneshot"}}).status, 0);
}

TEST_F(HostileFiles, BadTableAfterTheScanAbortsWithItsMessage)
{
    auto file = jpeg_writer::write(jpeg_writer::grey(64, 64));
    jpeg_writer::insert_before_end(file, {0xFF, 0xC4, 0x00, 0x03, 0x00});
    const ended_worker ended = run_worker(home, {{"--file", write("late.jpg", file), "--oneshot"}});
    EXPECT_EQ(ended.status, -SIGABRT);
    EXPECT_THAT(ended.printed, EndsWith("Unexpected longjmp from JPEGLIB error handler\n"));
}

TEST_F(HostileFiles, TiffOfJpegStripsIsReadByTheLibrarysOwnJpegReader)
{
    const ended_worker ended =
        run_worker(home, {{"--file", STILLIMAGE_TEST_DATA "/tiff/cmyk-jpeg.tif", "--oneshot"}});
    EXPECT_EQ(ended.status, 0) << ended.printed;
}

TEST_F(HostileFiles, ListOfAHundredThousandSizesIsReplacedByOne)
{
    const std::string path = write("picture.jpg", jpeg_writer::write(jpeg_writer::grey(40, 30)));
    std::filesystem::create_directory(home.path("meta"));
    std::string list;
    for (int i = 0; i < 100'000; ++i) {
        list += "image size = 1 x 1\n";
    }
    home.folder().write("meta/metadata", list);
    const ended_worker ended =
        run_worker(home, {{"--file", path, "--metadir", home.path("meta"), "--identify-only"}});
    EXPECT_EQ(ended.status, 0) << ended.printed;
    const std::string written = home.folder().read("meta/metadata");
    EXPECT_THAT(written, HasSubstr("image size = 40 x 30\n"));
    EXPECT_EQ(written.find("1 x 1"), std::string::npos);
}

} // namespace
