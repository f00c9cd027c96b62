// Events while the library reads: served clients, signals, disk errors.
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/reading_watch.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/support/failing_calls.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using testing::EndsWith;
using testing::StartsWith;

namespace {

constexpr size_t buffer_size = 32768; // of one read
constexpr unsigned char sentinel = 0xA5;
constexpr unsigned char comment = 0xFE;
constexpr unsigned char huffman_tables = 0xC4;

class JpegReading : public jpeg_test {
protected:
    void SetUp() override
    {
        failing_calls::plan = {};
        jpeg_test::SetUp();
    }

    void TearDown() override
    {
        failing_calls::plan = {};
        jpeg_test::TearDown();
    }

    // Counts reads from now on and calls `action` in read `number`.
    void in_read(int number, const std::function<void()>& action)
    {
        reads = 0;
        failing_calls::plan.on_read = [this, number, action] {
            if (++reads == number) {
                action();
            }
        };
    }

    // A signal in read `number`, at a time when the decoder will not check for it soon enough.
    void signal_in_read(int number)
    {
        scripted::plan.clock_step_us = max_decoder_delay_us;
        in_read(number, [] { DIE4 = 1; });
    }

    static file_bytes segment(unsigned char marker, size_t size)
    {
        file_bytes bytes(size + 4);
        bytes[0] = 0xFF;
        bytes[1] = marker;
        bytes[2] = static_cast<unsigned char>((size + 2) >> 8);
        bytes[3] = static_cast<unsigned char>(size + 2);
        return bytes;
    }

    // The whole frame buffer after decoding `file`, which must print nothing.
    std::vector<unsigned char> decoded(const file_bytes& file)
    {
        open(file, sentinel);
        EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
        const std::vector<unsigned char> result = allocation();
        reset_for_jpeg();
        return result;
    }

    int reads = 0;
};

// A file larger than several buffers.
file_bytes long_file()
{
    return write(grey(600, 400));
}

TEST_F(JpegReading, ShortAndInterruptedReadsAreContinued)
{
    const file_bytes file = long_file();
    ASSERT_GT(file.size(), 2 * buffer_size);
    const std::vector<unsigned char> expected = decoded(file);
    failing_calls::plan.max_read = 1000;
    failing_calls::plan.read = 60;
    failing_calls::plan.read_errno = EINTR;
    EXPECT_TRUE(decoded(file) == expected);
    EXPECT_EQ(printed, "");
}

TEST_F(JpegReading, DiskErrorEndsTheFile)
{
    const file_bytes file = long_file();
    const std::vector<unsigned char> expected =
        decoded(first_bytes(file, buffer_size + size_t{7} * 1000));
    const std::string printed_for_cut = printed;
    EXPECT_THAT(printed_for_cut, StartsWith("Premature end of JPEG file"));
    failing_calls::plan.max_read = 1000;
    failing_calls::plan.read = 33 + 8;
    failing_calls::plan.read_errno = EIO;
    EXPECT_TRUE(decoded(file) == expected);
    EXPECT_EQ(printed, "Error while reading the picture: Input/output error\n" + printed_for_cut);
}

TEST_F(JpegReading, ErrorAtTheStartIsAnEmptyFile)
{
    failing_calls::plan.read = 1;
    failing_calls::plan.read_errno = EIO;
    EXPECT_EQ(examine(long_file()), -1);
    EXPECT_THAT(printed, StartsWith("Error while reading the picture: Input/output error\n"
                                    "JPEGLIB error exit attempted (code "));
    EXPECT_THAT(printed,
                EndsWith("'Empty input file')\nJPEG library panicked and attempted to exit. "
                         "Decode failed\n"));
}

TEST_F(JpegReading, ClientsAreServedAtFixedIntervals)
{
    const file_bytes file = long_file();
    const std::vector<unsigned char> expected = decoded(file);
    open(file, sentinel);
    decode(full_decode_jpeg_raw_grayscale);
    const uint64_t between_rows = scripted::log.idle_rounds;
    EXPECT_EQ(between_rows, 400U / 8);
    reset_for_jpeg();
    scripted::plan.clock_step_us = 600;
    open(file, sentinel);
    const uint64_t examining = scripted::log.idle_rounds;
    EXPECT_GT(examining, 0U);
    decode(full_decode_jpeg_raw_grayscale);
    EXPECT_GE(scripted::log.idle_rounds, examining + between_rows + file.size() / buffer_size - 1);
    EXPECT_TRUE(allocation() == expected);
}

TEST_F(JpegReading, SignalEndsTheExaminationAtTheNextRead)
{
    file_bytes file = long_file();
    for (int i = 0; i < 20; ++i) {
        insert(file, 2, segment(comment, 60'000));
    }
    in_read(5, [] { DIE4 = 1; });
    EXPECT_EQ(examine(file), -1);
    EXPECT_EQ(printed, "JPEG library panicked and attempted to exit. Decode failed\n");
    EXPECT_EQ(reads, 5);
    EXPECT_EQ(jpeg_decompress, nullptr);
}

TEST_F(JpegReading, SignalInsideTheRowsIsLeftToTheDecoder)
{
    open(long_file(), sentinel);
    in_read(1, [] { DIE4 = 1; });
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(reads, 1);
    EXPECT_FALSE(jpeg_stop_armed);
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
}

TEST_F(JpegReading, ReadingForMissingRowsEndsOnASignal)
{
    picture what = grey(64, 64);
    what.restart_interval = 8; // one row of blocks
    file_bytes file = write(what);
    size_t restart = file.size() - 1;
    while (file[restart] != 0xFF || file[restart + 1] != 0xD1) {
        --restart;
    }
    insert(file, restart, file_bytes(2'000'000, 0));
    open(file, sentinel);
    signal_in_read(3);
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(printed, "");
    EXPECT_LE(reads, 5);
    EXPECT_FALSE(jpeg_stop_armed);
    const std::vector<unsigned char> planes = allocation();
    EXPECT_EQ(planes[16 * image_stride_Y], 16); // the group that was not decoded
    EXPECT_EQ(planes[63 * image_stride_Y + image_stride_Y - 1], 16);
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
}

TEST_F(JpegReading, ReadingAfterTheRowsEndsOnASignal)
{
    const file_bytes sound = write(grey(64, 64));
    const std::vector<unsigned char> expected = decoded(sound);
    file_bytes file = sound;
    insert_before_end(file, file_bytes(2'000'000, 0));
    open(file, sentinel);
    signal_in_read(3);
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_LE(reads, 5);
    EXPECT_TRUE(allocation() == expected);
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
}

// At this place the end of a file would be a fatal error.
TEST_F(JpegReading, StopInsideATableIsNoFatalError)
{
    file_bytes file = write(grey(64, 64));
    for (int i = 0; i < 20; ++i) {
        insert_before_end(file, segment(huffman_tables, size_t{17} * 3500));
    }
    open(file, sentinel);
    signal_in_read(4);
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(printed, "");
    EXPECT_LE(reads, 6);
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
}

TEST_F(JpegReading, LeavingTheLibraryReturnsWhenNothingIsArmed)
{
    jpeg_error_armed = jpeg_stop_armed = false;
    leave_jpeg_library(); // returns
}

} // namespace
