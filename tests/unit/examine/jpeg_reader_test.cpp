#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jerror.h>

#include "bin/examine/jpeg_reader.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/open_descriptors.h"

using testing::EndsWith;
using testing::KilledBySignal;

namespace {

class JpegReader : public jpeg_test {
protected:
    void open_small() { ASSERT_EQ(examine(write(jpeg_writer::grey(16, 16))), 0); }

    static j_common_ptr object() { return reinterpret_cast<j_common_ptr>(jpeg_decompress); }
};

// Replaces the library's release of a memory pool and raises a fatal error.
void raise_on_free(j_common_ptr cinfo, int /*pool*/)
{
    cinfo->err->msg_code = JERR_OUT_OF_MEMORY;
    cinfo->err->msg_parm.i[0] = 7;
    cinfo->err->error_exit(cinfo);
}

// Closes a picture whose memory the library fails to release.
void free_stuck_picture()
{
    jpeg_decompress->mem->free_pool = raise_on_free;
    free_all_jpeg_fileio();
}

const std::string raised = "JPEGLIB error exit attempted (code " +
                           std::to_string(JERR_OUT_OF_MEMORY) +
                           ": 'Insufficient memory (case 7)')\n";
constexpr char unexpected[] = "Unexpected longjmp from JPEGLIB error handler\n";

// --- error callback -----------------------------------------------------------------------------

TEST_F(JpegReader, CallbackWithoutErrorManagerAborts)
{
    EXPECT_EXIT(jpeg_error_exit_cbj(nullptr), KilledBySignal(SIGABRT),
                "^Whoah\\.\\.\\.\\. jpeg_error_exit callback with no error manager!\n$");
}

TEST_F(JpegReader, CallbackForAnotherObjectAborts)
{
    open_small();
    jpeg_decompress_struct other = {};
    EXPECT_EXIT(jpeg_error_exit_cbj(reinterpret_cast<j_common_ptr>(&other)),
                KilledBySignal(SIGABRT),
                "^jpeg_error_exit for a decompression object that's not mine\n$");
}

TEST_F(JpegReader, CallbackWithNothingArmedPrintsBothLinesAndAborts)
{
    open_small();
    EXPECT_EXIT(raise_on_free(object(), 1), KilledBySignal(SIGABRT),
                testing::Eq(raised + unexpected));
}

TEST_F(JpegReader, CallbackJumpsToTheArmedFrame)
{
    open_small();
    testing::internal::CaptureStderr();
    volatile bool jumped = false;
    if (setjmp(jpeg_error_jumpto) == 0) {
        jpeg_error_armed = true;
        raise_on_free(object(), 1);
    } else {
        jumped = true;
    }
    EXPECT_TRUE(jumped);
    EXPECT_FALSE(jpeg_error_armed); // a jump disarms
    EXPECT_EQ(testing::internal::GetCapturedStderr(), raised);
}

TEST_F(JpegReader, DisarmedJumpAborts)
{
    jpeg_error_armed = true;
    setjmp_abort_unexpected();
    EXPECT_EXIT(jump_to_jpeg_call_site(), KilledBySignal(SIGABRT),
                "^Unexpected longjmp from JPEGLIB error handler\n$");
}

// --- clean-up -----------------------------------------------------------------------------------

void expect_closed()
{
    EXPECT_EQ(jpeg_fp, nullptr);
    EXPECT_EQ(jpeg_decompress, nullptr);
    EXPECT_EQ(jpeg_error_manager, nullptr);
    EXPECT_FALSE(jpeg_error_armed);
}

TEST_F(JpegReader, ClosingNothingIsSilent)
{
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
    expect_closed();
}

TEST_F(JpegReader, ClosingTwiceClosesTheDescriptorOnce)
{
    const size_t before = open_descriptors();
    open_small();
    EXPECT_EQ(open_descriptors(), before + 2); // the picture and the reader's own descriptor for it
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
    expect_closed();
    EXPECT_EQ(open_descriptors(), before + 1);
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
    EXPECT_EQ(open_descriptors(), before + 1);
}

TEST_F(JpegReader, ObjectThatWasNeverCreatedIsFreedWithoutTheLibrary)
{
    // Without an error manager a call of the library would crash, so it would be noticed.
    jpeg_decompress =
        static_cast<jpeg_decompress_struct*>(calloc(1, sizeof(jpeg_decompress_struct)));
    for (const bool abort_wanted : {false, true}) {
        jpeg_should_abort = abort_wanted ? 1 : 0;
        EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
        expect_closed();
        jpeg_decompress =
            static_cast<jpeg_decompress_struct*>(calloc(1, sizeof(jpeg_decompress_struct)));
    }
}

TEST_F(JpegReader, ErrorWhileDroppingAPictureAborts)
{
    open_small();
    EXPECT_EXIT(free_stuck_picture(), KilledBySignal(SIGABRT), testing::Eq(raised + unexpected));
}

TEST_F(JpegReader, ArmingElsewhereDoesNotAffectTheCleanUp)
{
    open_small();
    jpeg_error_armed = true;
    EXPECT_EXIT(free_stuck_picture(), KilledBySignal(SIGABRT), testing::Eq(raised + unexpected));
    jpeg_error_armed = false;
}

TEST_F(JpegReader, LibraryReleasesItsMemory)
{
    static void (*true_destruct)(j_common_ptr);
    static int destructions;
    open_small();
    destructions = 0;
    true_destruct = jpeg_decompress->mem->self_destruct;
    jpeg_decompress->mem->self_destruct = [](j_common_ptr cinfo) {
        ++destructions;
        true_destruct(cinfo);
    };
    free_all_jpeg_fileio();
    EXPECT_EQ(destructions, 1);
}

TEST_F(JpegReader, PictureReadToItsEndIsFinishedSilently)
{
    open_small();
    ASSERT_EQ(jpeg_start_decompress(jpeg_decompress), TRUE);
    JSAMPLE row[16];
    JSAMPROW rows[16];
    std::fill(std::begin(rows), std::end(rows), &row[0]);
    JSAMPARRAY component = rows;
    while (jpeg_decompress->output_scanline < jpeg_decompress->output_height) {
        ASSERT_NE(jpeg_read_raw_data(jpeg_decompress, &component, 16), 0U);
    }
    jpeg_should_abort = 0;
    EXPECT_EQ(printed_by(free_all_jpeg_fileio), "");
    expect_closed();
}

TEST_F(JpegReader, PictureThatCannotBeFinishedIsDropped)
{
    open_small();
    jpeg_should_abort = 0;
    EXPECT_EQ(
        printed_by(free_all_jpeg_fileio),
        "JPEGLIB error exit attempted (code " + std::to_string(JERR_BAD_STATE) +
            ": 'Improper call to JPEG library in state 202')\n"
            "jpeg_finish_decompress() threw an error. calling jpeg_abort_decompress function\n");
    expect_closed();
}

TEST_F(JpegReader, PictureThatCannotBeDroppedEitherAborts)
{
    open_small();
    jpeg_should_abort = 0;
    EXPECT_EXIT(
        free_stuck_picture(), KilledBySignal(SIGABRT),
        EndsWith(raised +
                 "free_all_jpeg() JPEGLIB panicked in a way I could not handle. Bailing out\n"));
}

} // namespace
