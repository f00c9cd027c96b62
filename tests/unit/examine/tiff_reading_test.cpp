// How libtiff reads the file: interruptions, disk errors and signals.
#include <algorithm>
#include <cerrno>

#include "bin/examine/tiff.h"
#include "bin/examine/tiff_open.h"
#include "platform/run_state.h"
#include "tests/support/open_descriptors.h"
#include "tests/unit/examine/tiff_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

class TiffReading : public TiffExamination {
protected:
    void TearDown() override
    {
        DIE4 = 0;
        TiffExamination::TearDown();
    }

    static bool strip_is_read(size_t size)
    {
        bytes strip(size);
        return TIFFReadRawStrip(tiff_image, 0, strip.data(), static_cast<tmsize_t>(size)) ==
               static_cast<tmsize_t>(size);
    }

    // Opens `file` while the n-th read fails. Returns what is printed.
    std::string examine_with_failing_read(const bytes& file, int which, int error)
    {
        start_over();
        scripted::set_picture(file);
        failing_calls::plan.read = which;
        failing_calls::plan.read_errno = error;
        examine_tiff_file();
        const bool failed = failing_calls::plan.read == 0;
        free_all_tiff();
        return failed ? printed() : printed() + "(nothing failed)\n";
    }
};

tiff_spec with_long_strip(size_t size)
{
    tiff_spec spec = plain_tiff(1, 1, 1, 1);
    spec.strips = {bytes(size, 7)};
    return spec;
}

constexpr size_t several_pieces = size_t{9} << 20;

TEST_F(TiffReading, InterruptedReadsAreRetried)
{
    const bytes file = write_tiff(plain_tiff(40, 17, 3, 2));
    const std::string undisturbed = examine_with_failing_read(file, 1000, EINTR);
    for (int which = 1; which <= 4; ++which) {
        EXPECT_EQ(examine_with_failing_read(file, which, EINTR) + "(nothing failed)\n",
                  undisturbed);
    }
    ASSERT_EQ(examine(with_long_strip(several_pieces)), 0);
    failing_calls::plan.read = 2;
    failing_calls::plan.read_errno = EINTR;
    EXPECT_TRUE(strip_is_read(several_pieces));
    EXPECT_EQ(failing_calls::plan.read, 0);
}

TEST_F(TiffReading, ErrorWhileOpeningIsReportedOnceAndRefuses)
{
    const std::string message = "Error while reading the picture: Input/output error\n";
    const bytes file = write_tiff(plain_tiff(40, 17, 3, 2));
    for (int which = 1; which <= 3; ++which) {
        const std::string text = examine_with_failing_read(file, which, EIO);
        EXPECT_EQ(text.find(message), 0U) << text;
        EXPECT_EQ(text.find("Error while", 1), std::string::npos) << text;
        EXPECT_NE(text.find("TIFF did not open file\n"), std::string::npos) << text;
    }
}

TEST_F(TiffReading, FailedOpeningClosesTheDescriptor)
{
    const size_t before = open_descriptors();
    examine_with_failing_read(write_tiff(plain_tiff(4, 4, 3, 2)), 2, EIO);
    scripted::reset();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(TiffReading, SignalWhileOpeningRefusesTheFile)
{
    DIE4 = 1;
    EXPECT_EQ(examine(plain_tiff(4, 4, 3, 2)), 1);
    EXPECT_EQ(printed(), "TIFF did not open file\n");
    EXPECT_EQ(tiff_image, nullptr);
    DIE4 = 0;
    EXPECT_EQ(examine(plain_tiff(4, 4, 3, 2)), 0);
    free_all_tiff();
    printed();
    scripted::set_picture(bytes(100, 'x'));
    EXPECT_EQ(examine_tiff_file(), 1);
    EXPECT_EQ(printed().find("TIFF ERROR: "), 0U);
}

TEST_F(TiffReading, SocketIsServedWhileOpeningAndASignalEndsTheExamination)
{
    scripted::plan.clock_step_us = 500; // each clock reading is half a millisecond later
    scripted::plan.die_after_idle = 2;
    EXPECT_EQ(examine(plain_tiff(4, 4, 3, 2)), 1);
    EXPECT_EQ(printed(), "TIFF did not open file\n");
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
}

TEST_F(TiffReading, SocketIsServedDuringALongRead)
{
    ASSERT_EQ(examine(with_long_strip(several_pieces)), 0);
    scripted::plan.clock_step_us = 500;
    const uint64_t before = scripted::log.idle_rounds;
    EXPECT_TRUE(strip_is_read(several_pieces));
    EXPECT_EQ(scripted::log.idle_rounds, before + 2); // after each 4 MiB
}

TEST_F(TiffReading, SignalEndsALongReadSilently)
{
    ASSERT_EQ(examine(with_long_strip(several_pieces)), 0);
    printed();
    EXPECT_TRUE(strip_is_read(several_pieces));
    EXPECT_FALSE(tiff_reading_was_stopped(tiff_image));
    free_all_tiff();
    ASSERT_EQ(examine(with_long_strip(several_pieces)), 0);
    printed();
    failing_calls::plan.read = 3; // fails if there is a third piece
    failing_calls::plan.read_errno = EIO;
    DIE4 = 1;
    strip_is_read(several_pieces);
    EXPECT_TRUE(tiff_reading_was_stopped(tiff_image));
    EXPECT_EQ(failing_calls::plan.read, 2);
    EXPECT_EQ(printed(), "");
}

TEST_F(TiffReading, SignalDoesNotAffectShortReads)
{
    constexpr size_t short_strip = size_t{1} << 20;
    ASSERT_EQ(examine(with_long_strip(short_strip)), 0);
    printed();
    DIE4 = 1;
    EXPECT_TRUE(strip_is_read(short_strip));
    EXPECT_FALSE(tiff_reading_was_stopped(tiff_image));
    EXPECT_EQ(printed(), "");
}

} // namespace
