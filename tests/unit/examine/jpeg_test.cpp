#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jerror.h>

#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/examine/jpeg_examination.h"
#include "tests/unit/examine/jpeg_failing_calls.h"

using namespace jpeg_writer;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using ExamineJpeg = jpeg_examination;

// --- before the library is called ---------------------------------------------------------------

TEST_F(ExamineJpeg, SecondExaminationWhileOpenIsABug)
{
    ASSERT_EQ(examine(ycbcr_file(16, 16, {1, 1})), 0);
    FILE* stream = jpeg_fp;
    const std::string line = printed_by([] { EXPECT_EQ(examine_jpeg_file(), -1); });
    EXPECT_EQ(line, "BUG: examine_jpeg_file() when file already opened\n");
    EXPECT_EQ(jpeg_fp, stream);
    EXPECT_NE(jpeg_decompress, nullptr);
}

TEST_F(ExamineJpeg, EachPointerAloneCountsAsOpen)
{
    jpeg_fp = stdin;
    EXPECT_THAT(printed_by([] { EXPECT_EQ(examine_jpeg_file(), -1); }), StartsWith("BUG: "));
    jpeg_fp = nullptr;
    jpeg_decompress_struct object = {};
    jpeg_decompress = &object;
    EXPECT_THAT(printed_by([] { EXPECT_EQ(examine_jpeg_file(), -1); }), StartsWith("BUG: "));
    jpeg_decompress = nullptr;
    jpeg_error_mgr errors = {};
    jpeg_error_manager = &errors;
    EXPECT_THAT(printed_by([] { EXPECT_EQ(examine_jpeg_file(), -1); }), StartsWith("BUG: "));
    jpeg_error_manager = nullptr;
}

TEST_F(ExamineJpeg, NoDescriptorIsRefused)
{
    scripted::plan.file_handle_fails = true;
    EXPECT_EQ(examine(ycbcr_file(16, 16, {1, 1})), -1);
    EXPECT_EQ(printed, "Unable to get file handle\n");
    expect_closed();
}

TEST_F(ExamineJpeg, DescriptorIsClosedWhenNoStreamCanBeOpened)
{
    failing::fdopen_call.arm(1);
    EXPECT_EQ(examine(ycbcr_file(16, 16, {1, 1})), -1);
    EXPECT_EQ(printed, "fdopen() failed\n");
    expect_closed();
}

TEST_F(ExamineJpeg, FailedAllocationOfEitherObjectIsRefusedWithoutALibraryCall)
{
    const file_bytes file = ycbcr_file(16, 16, {1, 1});
    for (const int missing : {1, 2}) {
        jpeg_should_abort = 0;
        scripted::set_picture(file);
        failing::calloc_call.arm(missing);
        EXPECT_EQ(printed_by([] { EXPECT_EQ(examine_jpeg_file(), -1); }),
                  "Unable to allocate JPEG object\n");
        expect_closed();
    }
}

TEST_F(ExamineJpeg, EveryAllocationOfTheLibraryMayFail)
{
    const file_bytes file = ycbcr_file(16, 16, {2, 2});
    scripted::set_picture(file);
    int refused = 0;
    int result = -1;
    for (int n = 1; result != 0; ++n) {
        ASSERT_LT(n, 100);
        reset_jpeg_reader();
        testing::internal::CaptureStderr();
        failing::malloc_call.arm(n, true);
        result = examine_jpeg_file();
        failing::none();
        const std::string lines = testing::internal::GetCapturedStderr();
        if (result != 0) {
            ++refused;
            EXPECT_THAT(lines, HasSubstr("JPEGLIB error exit attempted (code "));
            EXPECT_THAT(lines, HasSubstr("Insufficient memory"));
            EXPECT_THAT(lines,
                        EndsWith("JPEG library panicked and attempted to exit. Decode failed\n"));
            expect_closed();
        }
    }
    EXPECT_GT(refused, 2);
}

// --- header that cannot be read -----------------------------------------------------------------

TEST_F(ExamineJpeg, FatalErrorInTheHeaderIsRefused)
{
    file_bytes file = ycbcr_file(16, 16, {1, 1});
    set_precision(file, 7);
    EXPECT_EQ(examine(file), -1);
    EXPECT_EQ(printed, "JPEGLIB error exit attempted (code " + std::to_string(JERR_BAD_PRECISION) +
                           ": 'Unsupported JPEG data precision 7')\n"
                           "JPEG library panicked and attempted to exit. Decode failed\n");
    expect_closed();
}

TEST_F(ExamineJpeg, EmptyFileIsRefused)
{
    expect_refusal({}, "JPEG library panicked and attempted to exit. Decode failed\n");
    EXPECT_THAT(printed, StartsWith("JPEGLIB error exit attempted (code "));
    EXPECT_THAT(printed, HasSubstr("'Empty input file'"));
}

TEST_F(ExamineJpeg, SuspendedHeaderIsRefused)
{
    failing::read_header_call.arm(1);
    EXPECT_EQ(examine(ycbcr_file(16, 16, {1, 1})), -1);
    EXPECT_EQ(printed, "JPEG library failed to read header\n");
    expect_closed();
}

TEST_F(ExamineJpeg, EmptyPictureIsRefused)
{
    file_bytes file = ycbcr_file(16, 16, {1, 1});
    set_size(file, 16, 0);
    expect_refusal(file, "JPEG library panicked and attempted to exit. Decode failed\n");
}

// --- tables only --------------------------------------------------------------------------------

constexpr char no_picture[] =
    "JPEG: 0 x 0 image with 0 components, colorspace #0: Unknown  lib default out #0: Unknown\n"
    "JPEGLIB: ERROR: Unsupported colorspace\n";

file_bytes tables_only()
{
    const file_bytes file = ycbcr_file(16, 16, {1, 1});
    file_bytes tables = first_bytes(file, find_frame_header(file));
    tables.insert(tables.end(), {0xFF, 0xD9});
    return tables;
}

TEST_F(ExamineJpeg, TablesOnlyFileHasNoColourSpace)
{
    EXPECT_EQ(examine(tables_only()), -1);
    EXPECT_EQ(printed, no_picture);
    expect_closed();
}

TEST_F(ExamineJpeg, PictureAfterTheTablesIsNotSearchedFor)
{
    file_bytes file = tables_only();
    insert(file, file.size(), ycbcr_file(16, 16, {1, 1}));
    EXPECT_EQ(examine(file), -1);
    EXPECT_EQ(printed, no_picture);
}

TEST_F(ExamineJpeg, FileTruncatedBeforeItsFrameHeaderHasTablesOnly)
{
    const file_bytes file = ycbcr_file(16, 16, {1, 1});
    expect_refusal(first_bytes(file, find_frame_header(file)), no_picture);
}

// --- report and parameters ----------------------------------------------------------------------

TEST_F(ExamineJpeg, YcbcrIsReportedLineByLine)
{
    EXPECT_EQ(examine(ycbcr_file(40, 24, {2, 1})), 0);
    EXPECT_EQ(printed, "JPEG: 40 x 24 image with 3 components, colorspace #3: YCbCr  "
                       "lib default out #2: RGB\n"
                       "JPEGLIB: Reading raw YCbCr pixel data\n"
                       "Color channel[1]: ID 1 Sampling factor 2x1\n"
                       "Color channel[2]: ID 2 Sampling factor 1x1\n"
                       "Color channel[3]: ID 3 Sampling factor 1x1\n"
                       "JPEG chroma subsample 2x1\n");
    EXPECT_EQ(jpeg_decompress->out_color_space, JCS_YCbCr);
    EXPECT_EQ(jpeg_decompress->raw_data_out, TRUE);
    EXPECT_EQ(jpeg_decompress->do_fancy_upsampling, FALSE);
    EXPECT_EQ(jpeg_decompress->do_block_smoothing, TRUE);
    EXPECT_NE(jpeg_fp, nullptr);
    EXPECT_FALSE(jpeg_error_armed);
    EXPECT_EQ(jpeg_should_abort, 1);
}

TEST_F(ExamineJpeg, GrayscaleIsReportedLineByLine)
{
    image_chroma_x_shift = image_chroma_y_shift = 1;
    EXPECT_EQ(examine(write(grey(7, 3))), 0);
    EXPECT_EQ(printed, "JPEG: 7 x 3 image with 1 components, colorspace #1: Grayscale  "
                       "lib default out #1: Grayscale\n"
                       "JPEGLIB: Reading raw grayscale data\n"
                       "Color channel[1]: ID 1 Sampling factor 1x1\n");
    EXPECT_EQ(jpeg_decompress->out_color_space, JCS_GRAYSCALE);
    EXPECT_EQ(jpeg_decompress->raw_data_out, TRUE);
    EXPECT_EQ(jpeg_decompress->do_fancy_upsampling, FALSE);
    EXPECT_EQ(image_chroma_x_shift, 0);
    EXPECT_EQ(image_chroma_y_shift, 0);
}

TEST_F(ExamineJpeg, YcckIsReportedLineByLine)
{
    EXPECT_EQ(examine(write(four(JCS_YCCK, 16, 16, {1, 2}))), 0);
    EXPECT_EQ(printed, "JPEG: 16 x 16 image with 4 components, colorspace #5: YCbCrK  "
                       "lib default out #4: CMYK\n"
                       "JPEGLIB: Hoo boy... YCCK.\n"
                       "Color channel[1]: ID 1 Sampling factor 1x2\n"
                       "Color channel[2]: ID 2 Sampling factor 1x1\n"
                       "Color channel[3]: ID 3 Sampling factor 1x1\n"
                       "Color channel[4]: ID 4 Sampling factor 1x2\n"
                       "YCCK K-channel is not subsampled. GOOD\n"
                       "JPEG chroma subsample 1x2\n");
    EXPECT_EQ(jpeg_decompress->out_color_space, JCS_YCCK);
    EXPECT_EQ(jpeg_decompress->raw_data_out, TRUE);
    EXPECT_EQ(jpeg_decompress->do_fancy_upsampling, FALSE);
}

TEST_F(ExamineJpeg, CmykIsReportedLineByLine)
{
    image_chroma_x_shift = image_chroma_y_shift = 1;
    EXPECT_EQ(examine(write(four(JCS_CMYK, 16, 16, {1, 1}))), 0);
    EXPECT_EQ(printed, "JPEG: 16 x 16 image with 4 components, colorspace #4: CMYK  "
                       "lib default out #4: CMYK\n"
                       "JPEGLIB: Hoo boy... CYMK.\n"
                       "Color channel[1]: ID 67 Sampling factor 1x1\n"
                       "Color channel[2]: ID 77 Sampling factor 1x1\n"
                       "Color channel[3]: ID 89 Sampling factor 1x1\n"
                       "Color channel[4]: ID 75 Sampling factor 1x1\n");
    EXPECT_EQ(jpeg_decompress->out_color_space, JCS_CMYK);
    EXPECT_EQ(jpeg_decompress->raw_data_out, TRUE);
    EXPECT_EQ(jpeg_decompress->do_fancy_upsampling, TRUE);
    EXPECT_EQ(jpeg_decompress->do_block_smoothing, TRUE);
    EXPECT_EQ(image_chroma_x_shift, 0);
    EXPECT_EQ(image_chroma_y_shift, 0);
}

TEST_F(ExamineJpeg, CmykFactorsAreNotChecked)
{
    EXPECT_EQ(examine(write(four(JCS_CMYK, 16, 16, {2, 2}))), 0);
}

TEST_F(ExamineJpeg, BlockSmoothingIsOnInEveryColourSpace)
{
    for (const J_COLOR_SPACE space : {JCS_YCbCr, JCS_GRAYSCALE, JCS_YCCK, JCS_CMYK}) {
        jpeg_decompress_struct cinfo = {};
        cinfo.jpeg_color_space = space;
        printed_by([&cinfo] { EXPECT_EQ(choose_jpeg_output(&cinfo), 0); });
        EXPECT_EQ(cinfo.do_block_smoothing, TRUE);
    }
}

TEST_F(ExamineJpeg, MonochromeFlagIsSetForOneAndThreeComponentsOnly)
{
    image_is_monochrome = 1;
    ASSERT_EQ(examine(ycbcr_file(16, 16, {1, 1})), 0);
    EXPECT_EQ(image_is_monochrome, 0);
    for (const int before : {0, 1}) {
        for (const J_COLOR_SPACE space : {JCS_YCCK, JCS_CMYK}) {
            reset_jpeg_reader();
            image_is_monochrome = before;
            ASSERT_EQ(examine(write(four(space, 16, 16, {1, 1}))), 0);
            EXPECT_EQ(image_is_monochrome, before);
        }
    }
    reset_jpeg_reader();
    image_is_monochrome = 0;
    ASSERT_EQ(examine(write(grey(16, 16))), 0);
    EXPECT_EQ(image_is_monochrome, 1);
}

// --- afterwards ---------------------------------------------------------------------------------

TEST_F(ExamineJpeg, LibraryErrorAfterwardsEndsTheProcess)
{
    ASSERT_EQ(examine(ycbcr_file(16, 16, {1, 1})), 0);
    EXPECT_EXIT(jpeg_finish_decompress(jpeg_decompress), testing::KilledBySignal(SIGABRT),
                EndsWith("Unexpected longjmp from JPEGLIB error handler\n"));
}

TEST_F(ExamineJpeg, FileTruncatedAtEveryByteIsRefusedOrAccepted)
{
    const file_bytes file = ycbcr_file(24, 24, {2, 2});
    for (size_t size = 0; size <= file.size(); ++size) {
        reset_jpeg_reader();
        if (examine(first_bytes(file, size)) != 0) {
            expect_closed();
        }
    }
    EXPECT_EQ(image_width, 24);
}

} // namespace
