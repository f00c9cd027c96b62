#include <csignal>
#include <cstdint>
#include <string>
#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jerror.h>

#include "bin/decode/jpeg_start.h"
#include "bin/examine/jpeg_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr char gave_up[] = "jpeg_start_decompress() threw an error. giving up\n";
constexpr int idle_state = 200; // the library's state after its creation

#if defined(__SANITIZE_ADDRESS__)
constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
constexpr bool address_sanitizer = __has_feature(address_sanitizer);
#else
constexpr bool address_sanitizer = false;
#endif

class JpegStart : public jpeg_test {
protected:
    int start()
    {
        int result = 0;
        printed = printed_by([&result] { result = start_jpeg_decompress(); });
        return result;
    }

    void expect_idle() const
    {
        EXPECT_EQ(jpeg_decompress->global_state, idle_state);
        EXPECT_EQ(jpeg_decompress->progress, nullptr);
        EXPECT_FALSE(jpeg_error_armed);
        EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
    }
};

file_bytes progressive(int width, int height)
{
    picture what = ycbcr(width, height, {2, 2});
    what.progressive = true;
    return write(what);
}

TEST_F(JpegStart, StartedPictureIsReadyForRowsAndLaterErrorsAbort)
{
    open(write(ycbcr(32, 32, {2, 2})));
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(jpeg_decompress->output_height, 32U);
    EXPECT_EQ(jpeg_decompress->progress, nullptr);
    EXPECT_FALSE(jpeg_error_armed);
}

TEST_F(JpegStart, FatalErrorIsReportedAndLeavesTheLibraryIdle)
{
    file_bytes file = write(ycbcr(32, 32, {2, 2}));
    set_precision(file, 12);
    open(file);
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(printed, "JPEGLIB error exit attempted (code " + std::to_string(JERR_BAD_PRECISION) +
                           ": 'Unsupported JPEG data precision 12')\n" + gave_up);
    expect_idle();
}

TEST_F(JpegStart, ClientsAreServedWhileAProgressiveFileIsRead)
{
    open(progressive(64, 64));
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_GE(scripted::log.idle_rounds, 4U * 6U); // four rows of blocks, at least six scans
    EXPECT_EQ(jpeg_decompress->progress, nullptr);
}

TEST_F(JpegStart, SingleScanIsNotReadAhead)
{
    open(write(ycbcr(64, 64, {2, 2})));
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 0U);
}

TEST_F(JpegStart, SignalDuringTheReadIsAFailure)
{
    open(progressive(64, 64));
    scripted::plan.die_after_idle = 5;
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(printed, gave_up);
    EXPECT_EQ(scripted::log.idle_rounds, 5U);
    EXPECT_TRUE(scripted::log.status.empty());
    expect_idle();
}

TEST_F(JpegStart, TooManyScansAreAFailure)
{
    file_bytes file = progressive(8, 8);
    insert_before_end(file, empty_scans(1100));
    open(file);
    EXPECT_EQ(start(), -1);
    EXPECT_THAT(printed, EndsWith(gave_up));
    EXPECT_THAT(printed, testing::Not(HasSubstr("JPEGLIB")));
    EXPECT_EQ(scripted::log.idle_rounds, 1U + 2U * max_jpeg_scans);
    expect_idle();
}

TEST_F(JpegStart, ScansUpToTheLimitAreRead)
{
    file_bytes file = progressive(8, 8);
    const int own_scans = [&file, this] {
        open(file);
        start();
        const int scans = jpeg_decompress->input_scan_number;
        reset_for_jpeg();
        return scans;
    }();
    insert_before_end(file, empty_scans(static_cast<size_t>(max_jpeg_scans - own_scans)));
    open(file);
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(jpeg_decompress->input_scan_number, max_jpeg_scans);
}

// The budget of a large picture allows 129 full walks over its 262144 blocks.
file_bytes made_large(file_bytes file, const file_bytes& scans)
{
    set_size(file, 4096, 4096);
    insert_before_end(file, scans);
    return file;
}

file_bytes large_picture(const file_bytes& scans)
{
    picture what = grey(64, 64);
    what.progressive = true;
    return made_large(write(what), scans);
}

// Like empty_scans, but only of the last coefficient.
file_bytes narrow_scans(size_t count)
{
    file_bytes scans = empty_scans(count);
    constexpr size_t scan_size = 10;
    constexpr size_t first_coefficient = 7;
    for (size_t at = first_coefficient; at < scans.size(); at += scan_size) {
        scans[at] = 63;
    }
    return scans;
}

TEST_F(JpegStart, MoreScansThanALargePictureMayHaveAreAFailure)
{
    open(large_picture(empty_scans(130)));
    EXPECT_EQ(start(), -1);
    EXPECT_THAT(printed, EndsWith(gave_up));
    EXPECT_THAT(printed, testing::Not(HasSubstr("JPEGLIB")));
    EXPECT_EQ(jpeg_decompress->progress, nullptr);
}

TEST_F(JpegStart, ScansThatALargePictureMayHaveAreRead)
{
    open(large_picture(empty_scans(120)));
    EXPECT_EQ(start(), 0);
}

TEST_F(JpegStart, LargePicturesMayHaveMoreScansOfFewCoefficients)
{
    open(large_picture(narrow_scans(200)));
    EXPECT_EQ(start(), 0);
}

TEST_F(JpegStart, LongFilesMayHaveMoreScans)
{
    file_bytes file = large_picture(empty_scans(130));
    file.insert(file.end(), 400'000, 0); // after the picture, which has no more scans
    open(file);
    EXPECT_EQ(start(), 0);
}

file_bytes blank_arithmetic()
{
    picture what = grey(64, 64);
    what.progressive = what.arithmetic = true;
    what.sample = [](int, int, int) -> unsigned char { return 128; };
    return write(what);
}

// Scans of 63 coefficients with these approximation bits and this data.
file_bytes scans_of(size_t count, unsigned char bits, const file_bytes& data)
{
    file_bytes one = empty_scans(1);
    one.back() = bits;
    one.insert(one.end(), data.begin(), data.end());
    file_bytes all;
    for (size_t i = 0; i < count; ++i) {
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

struct weighed_scan {
    const char* name;
    unsigned char bits;
    file_bytes data;
    size_t read;
    size_t too_many;
};

// A block of the picture has a budget of 9216. Its own scans cost 3878, since their data ends in
// the first row. A further scan costs 134, 638 or 2528.
TEST_F(JpegStart, ArithmeticCodedScansCountByTheirCost)
{
    const file_bytes blank = blank_arithmetic();
    const file_bytes data(400, 0); // enough for most blocks
    const weighed_scan scans[] = {{"refinement", 0x10, data, 28, 45},
                                  {"refinement without data", 0x10, {}, 8, 9},
                                  {"without data", 0x00, {}, 2, 3}};
    for (const weighed_scan& scan : scans) {
        SCOPED_TRACE(scan.name);
        open(made_large(blank, scans_of(scan.read, scan.bits, scan.data)));
        EXPECT_EQ(start(), 0);
        reset_for_jpeg();
        open(made_large(blank, scans_of(scan.too_many, scan.bits, scan.data)));
        EXPECT_EQ(start(), -1);
        EXPECT_THAT(printed, EndsWith(gave_up));
        reset_for_jpeg();
    }
}

TEST_F(JpegStart, ErrorAfterTheStartEndsTheProcess)
{
    open(progressive(32, 32));
    ASSERT_EQ(start(), 0);
    EXPECT_EXIT(jpeg_start_decompress(jpeg_decompress), testing::KilledBySignal(SIGABRT),
                EndsWith("Unexpected longjmp from JPEGLIB error handler\n"));
}

TEST_F(JpegStart, LackOfMemoryIsAFailure)
{
    if (address_sanitizer) {
        GTEST_SKIP() << "the sanitizer needs the address space";
    }
    file_bytes file = progressive(64, 64);
    set_size(file, 16384, 16384);
    ASSERT_EQ(examine(file), 0);
    int ending = -1;
    printed = printed_by([&ending] {
        ending = run_in_child([] {
            const rlimit limit = {UINT64_C(512) << 20, UINT64_C(512) << 20};
            return setrlimit(RLIMIT_AS, &limit) == 0 && start_jpeg_decompress() == -1 ? 0 : 1;
        });
    });
    EXPECT_EQ(ending, 0);
    EXPECT_THAT(printed, HasSubstr("Insufficient memory"));
    EXPECT_THAT(printed, EndsWith(gave_up));
}

} // namespace
