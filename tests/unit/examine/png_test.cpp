#include <csignal>
#include <cstdlib>

#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "tests/support/png_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

class PngExamination : public ExamineFixture {
protected:
    static int examine(const png_spec& spec)
    {
        scripted::set_picture(write_png(spec));
        return examine_png_file();
    }

    static int examine_bytes(const bytes& file)
    {
        scripted::set_picture(file);
        return examine_png_file();
    }

    static void expect_closed()
    {
        EXPECT_EQ(png_fp, nullptr);
        EXPECT_EQ(png_context, nullptr);
        EXPECT_EQ(png_context_info, nullptr);
        EXPECT_EQ(png_context_end, nullptr);
        EXPECT_EQ(png_width, 0U);
        EXPECT_EQ(png_height, 0U);
        EXPECT_EQ(png_bit_depth, 0);
        EXPECT_EQ(png_color_type, 0);
    }
};

// The line that libpng prints itself after the callback has returned.
std::string library_line(const std::string& message)
{
    return "PNG ERROR: " + message + "\nlibpng error: " + message + "\n";
}

TEST_F(PngExamination, HeaderIsReadReportedAndPublished)
{
    ASSERT_EQ(examine({.width = 33, .height = 17, .depth = 8, .colour_type = 6, .interlace = 1}),
              0);
    EXPECT_EQ(printed(), "PNG info: 33 x 17 8-bit colortype=6 ilmethod=1 cmethod=0 fmethod=0\n"
                         "  PNG_COLOR_MASK_COLOR\n"
                         "  PNG_COLOR_MASK_ALPHA\n");
    EXPECT_EQ(png_width, 33U);
    EXPECT_EQ(png_height, 17U);
    EXPECT_EQ(png_bit_depth, 8);
    EXPECT_EQ(png_color_type, 6);
    EXPECT_EQ(png_interlace_method, 1);
    EXPECT_EQ(png_compression_method, 0);
    EXPECT_EQ(png_filter_method, 0);
    EXPECT_EQ(image_width, 33);
    EXPECT_EQ(image_height, 17);
    EXPECT_EQ(image_buffer_height, 32);
    EXPECT_EQ(png_context_end, nullptr);
    EXPECT_NE(png_fp, nullptr);
}

struct colour_case {
    uint8_t colour_type;
    uint8_t depth;
    int has_alpha;
    int is_monochrome;
    const char* masks;
};

class PngColourType : public PngExamination, public testing::WithParamInterface<colour_case> {};

TEST_P(PngColourType, DecidesPlanesAndMaskLines)
{
    image_chroma_x_shift = image_chroma_y_shift = 1;
    image_has_alpha_channel = image_is_monochrome = 7;
    png_spec spec = {.width = 4, .height = 1};
    spec.colour_type = GetParam().colour_type;
    spec.depth = GetParam().depth;
    if (spec.colour_type == 3) {
        spec.chunks = {{"PLTE", {1, 2, 3, 4, 5, 6}}, {"tRNS", {0}}};
    }
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(image_has_alpha_channel, GetParam().has_alpha);
    EXPECT_EQ(image_is_monochrome, GetParam().is_monochrome);
    EXPECT_EQ(image_chroma_x_shift, 0);
    EXPECT_EQ(image_chroma_y_shift, 0);
    const std::string text = printed();
    EXPECT_EQ(text.substr(text.find('\n') + 1), GetParam().masks);
}

INSTANTIATE_TEST_SUITE_P(
    Types, PngColourType,
    testing::Values(colour_case{0, 1, 0, 1, ""}, colour_case{0, 16, 0, 1, ""},
                    colour_case{2, 8, 0, 0, "  PNG_COLOR_MASK_COLOR\n"},
                    colour_case{3, 1, 0, 0, "  PNG_COLOR_MASK_PALETTE\n  PNG_COLOR_MASK_COLOR\n"},
                    colour_case{4, 8, 1, 1, "  PNG_COLOR_MASK_ALPHA\n"},
                    colour_case{6, 16, 1, 0, "  PNG_COLOR_MASK_COLOR\n  PNG_COLOR_MASK_ALPHA\n"}));

TEST_F(PngExamination, BufferHeightIsRoundedUpToSixteen)
{
    for (const auto& [height, rows] :
         {std::pair{1U, 16}, std::pair{16U, 16}, std::pair{17U, 32}, std::pair{16384U, 16384}}) {
        ASSERT_EQ(examine({.height = height}), 0);
        EXPECT_EQ(image_buffer_height, rows);
        free_all_png_fileio();
    }
}

TEST_F(PngExamination, SizeLimits)
{
    EXPECT_TRUE(png_size_is_acceptable(1, 1));
    EXPECT_TRUE(png_size_is_acceptable(16384, 16384));
    EXPECT_FALSE(png_size_is_acceptable(16385, 1));
    EXPECT_FALSE(png_size_is_acceptable(1, 16385));
    EXPECT_FALSE(png_size_is_acceptable(0, 1));
    EXPECT_FALSE(png_size_is_acceptable(1, 0));
    EXPECT_FALSE(png_size_is_acceptable(0xFFFFFFFF, 1));
    EXPECT_FALSE(png_size_is_acceptable(1, 0xFFFFFFFF));
}

TEST_F(PngExamination, LargestSizeIsAccepted)
{
    EXPECT_EQ(examine({.width = 16384, .height = 16384}), 0);
    EXPECT_EQ(image_width, 16384);
    EXPECT_EQ(image_height, 16384);
}

TEST_F(PngExamination, SizesOutsideTheLimitsAreRefused)
{
    const std::pair<uint32_t, uint32_t> sizes[] = {
        {16385, 1}, {1, 16385}, {0, 1}, {1, 0}, {0, 0}, {0x7FFFFFFF, 1}, {1, 0xFFFFFFFF}};
    for (const auto& [width, height] : sizes) {
        EXPECT_EQ(examine({.width = width, .height = height}), -1);
        const std::string text = printed();
        const std::string last = "Unexpected PNG error, giving up\n"
                                 "Image width and height is unacceptable\n";
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), last.size())), last)
            << width << " x " << height << ": " << text;
        expect_closed();
    }
}

TEST_F(PngExamination, TooWidePictureIsReportedWithTheReason)
{
    EXPECT_EQ(examine({.width = 16385}), -1);
    EXPECT_EQ(printed(), "PNG WARNING: Image width exceeds user limit in IHDR\n" +
                             library_line("Invalid IHDR data") +
                             "Unexpected PNG error, giving up\n"
                             "Image width and height is unacceptable\n");
}

TEST_F(PngExamination, HeadersRefusedByTheLibraryEndWithoutASizeLine)
{
    const png_spec specs[] = {{.interlace = 2}, {.colour_type = 1}, {.compression = 1},
                              {.filter = 1},    {.depth = 3},       {.depth = 4, .colour_type = 2}};
    for (const png_spec& spec : specs) {
        EXPECT_EQ(examine(spec), -1);
        const std::string text = printed();
        const std::string last =
            library_line("Invalid IHDR data") + "Unexpected PNG error, giving up\n";
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), last.size())), last) << text;
        expect_closed();
    }
}

TEST_F(PngExamination, FileThatIsNoPngIsRefused)
{
    EXPECT_EQ(examine_bytes(bytes(100, 'x')), -1);
    EXPECT_EQ(printed(), library_line("Not a PNG file") + "Unexpected PNG error, giving up\n");
    expect_closed();
}

TEST_F(PngExamination, FileTruncatedAtEveryByteIsRefusedAndClosed)
{
    const bytes whole = write_png({.width = 3, .height = 2, .rows = bytes(20, 0)});
    const size_t header_ends = 8 + 25 + 8; // signature, header, head of the first data chunk
    for (size_t length = 0; length < header_ends; ++length) {
        EXPECT_EQ(examine_bytes(bytes(whole.begin(), whole.begin() + long(length))), -1) << length;
        expect_closed();
    }
    EXPECT_NE(printed().find(library_line("Read Error") + "Unexpected PNG error, giving up\n"),
              std::string::npos);
    EXPECT_EQ(examine_bytes(bytes(whole.begin(), whole.begin() + long(header_ends))), 0);
}

TEST_F(PngExamination, MissingPaletteIsRefused)
{
    EXPECT_EQ(examine({.colour_type = 3}), -1);
    expect_closed();
}

TEST_F(PngExamination, WarningsArePrintedAndIgnored)
{
    EXPECT_EQ(examine({.colour_type = 0, .chunks = {{"PLTE", {1, 2, 3}}}}), 0);
    const std::string warning = "PNG WARNING: PLTE: ignored in grayscale PNG\n";
    EXPECT_EQ(printed().substr(0, warning.size() + 11), warning + "PNG info: 1");
}

TEST_F(PngExamination, ChunkLimitsOfTheLibraryAreSet)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    EXPECT_EQ(png_get_chunk_malloc_max(png_context), 8'000'000U);
    EXPECT_EQ(png_get_chunk_cache_max(png_context), 1000U);
    EXPECT_EQ(png_get_user_width_max(png_context), 16384U);
    EXPECT_EQ(png_get_user_height_max(png_context), 16384U);
}

TEST_F(PngExamination, LibraryMayAllocateSixteenMebibytesInTotal)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    EXPECT_EQ(png_malloc_warn(png_context, 17 << 20), nullptr);
    std::vector<png_voidp> blocks;
    while (png_voidp block = png_malloc_warn(png_context, 1 << 20)) {
        blocks.push_back(block);
    }
    EXPECT_GE(blocks.size(), 15U); // some allocators return slightly more than requested
    EXPECT_LE(blocks.size(), 16U);
    for (png_voidp block : blocks) {
        png_free(png_context, block);
    }
    png_voidp again = png_malloc_warn(png_context, 15 << 20);
    EXPECT_NE(again, nullptr);
    png_free(png_context, again);
}

TEST_F(PngExamination, SixteenBitSamplesArriveAsEight)
{
    ASSERT_EQ(
        examine({.width = 2, .depth = 16, .colour_type = 0, .rows = {0, 0x80, 0x80, 0xFF, 0xFF}}),
        0);
    EXPECT_EQ(png_bit_depth, 16);
    unsigned char row[2] = {};
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        FAIL();
    }
    png_read_row(png_context, row, nullptr);
    EXPECT_EQ(row[0], 0x80);
    EXPECT_EQ(row[1], 0xFF);
}

TEST_F(PngExamination, SixteenBitSamplesAreScaledNotTruncated)
{
    ASSERT_EQ(examine({.depth = 16, .colour_type = 0, .rows = {0, 0x00, 0xFF}}), 0);
    unsigned char row[1] = {};
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        FAIL();
    }
    png_read_row(png_context, row, nullptr);
    EXPECT_EQ(row[0], 1); // 255 * 255 / 65535, rounded
}

TEST_F(PngExamination, SmallSamplesArriveUnscaledInOneByteEach)
{
    ASSERT_EQ(examine({.width = 8, .depth = 1, .colour_type = 0, .rows = {0, 0xA5}}), 0);
    EXPECT_EQ(png_bit_depth, 1);
    unsigned char row[8] = {};
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        FAIL();
    }
    png_read_row(png_context, row, nullptr);
    EXPECT_EQ(bytes(row, row + 8), (bytes{1, 0, 1, 0, 0, 1, 0, 1}));
}

TEST_F(PngExamination, SecondExaminationIsABugAndKeepsTheFirst)
{
    ASSERT_EQ(examine({.width = 5}), 0);
    printed();
    FILE* const file = png_fp;
    const png_structp context = png_context;
    EXPECT_EQ(examine_png_file(), -1);
    EXPECT_EQ(printed(), "BUG: examine_png_file() when already opened\n");
    EXPECT_EQ(png_fp, file);
    EXPECT_EQ(png_context, context);
    EXPECT_EQ(png_width, 5U);
}

TEST_F(PngExamination, NoFileHandle)
{
    scripted::plan.file_handle_fails = true;
    EXPECT_EQ(examine(png_spec{}), -1);
    EXPECT_EQ(printed(), "Unable to get file handle\n");
    expect_closed();
}

TEST_F(PngExamination, NoStream)
{
    failing_calls::plan.fdopen = 1;
    EXPECT_EQ(examine(png_spec{}), -1);
    EXPECT_EQ(printed(), "fdopen() failed\n");
    expect_closed();
}

TEST_F(PngExamination, NoReadStructure)
{
    failing_calls::plan.png_create_read_struct = 1;
    EXPECT_EQ(examine(png_spec{}), -1);
    EXPECT_EQ(printed(), "failed to create PNG read struct\n");
    expect_closed();
}

TEST_F(PngExamination, NoInfoStructure)
{
    failing_calls::plan.png_create_info_struct = 1;
    EXPECT_EQ(examine(png_spec{}), -1);
    EXPECT_EQ(printed(), "Failed to create PNG info struct\n");
    expect_closed();
}

TEST_F(PngExamination, NoHeaderFromTheLibrary)
{
    failing_calls::plan.png_get_ihdr = 1;
    EXPECT_EQ(examine(png_spec{}), -1);
    EXPECT_EQ(printed(), "Failed to read PNG IHDR\n");
    expect_closed();
}

TEST_F(PngExamination, CleanUpWithNothingOpenDoesNothing)
{
    free_all_png_fileio();
    free_all_png_fileio();
    EXPECT_EQ(printed(), "");
    expect_closed();
}

TEST_F(PngExamination, CleanUpClosesEverythingAndMayRunTwice)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    printed();
    free_all_png_fileio();
    expect_closed();
    free_all_png_fileio();
    EXPECT_EQ(printed(), "");
}

TEST_F(PngExamination, LibraryErrorInCleanUpIsReportedAndLeaksTheStructures)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    printed();
    failing_calls::plan.png_destroy_read_struct = 1;
    const png_structp context = png_context;
    free_all_png_fileio();
    EXPECT_EQ(printed(), library_line("not now") + "PNG longjmp while freeing struct. Giving up.\n"
                                                   "This may show up as a memory leak.\n");
    EXPECT_EQ(png_context, context);
    EXPECT_EQ(png_fp, nullptr);
}

TEST_F(PngExamination, CallbacksPrintOneLineAndReturn)
{
    png_error_cb(nullptr, "100 %s");
    png_warning_cb(nullptr, "%n");
    EXPECT_EQ(printed(), "PNG ERROR: 100 %s\nPNG WARNING: %n\n");
}

using PngExaminationDeath = PngExamination;

TEST_F(PngExaminationDeath, LibraryErrorAfterExaminationAborts)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    leave_stderr_alone();
    EXPECT_EXIT(png_error(png_context, "late"), testing::KilledBySignal(SIGABRT),
                "PNG ERROR: late\nlibpng error: late\nUnexpected PNG setjmp after header setup\n");
}

TEST_F(PngExaminationDeath, DisarmedReaderAborts)
{
    ASSERT_EQ(examine(png_spec{}), 0);
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        FAIL();
    }
    png_abort_unexpected();
    leave_stderr_alone();
    EXPECT_EXIT(png_error(png_context, "late"), testing::KilledBySignal(SIGABRT),
                "Unexpected PNG setjmp after header setup\n");
}

} // namespace
