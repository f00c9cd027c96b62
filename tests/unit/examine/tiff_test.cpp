#include <algorithm>
#include <unistd.h>

#include <gmock/gmock.h>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "platform/item_metadata.h"
#include "tests/support/file_contents.h"
#include "tests/unit/examine/tiff_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

// Compressed strips stay as they are; the library divides tall uncompressed strips into smaller
// ones.
constexpr uint32_t compression_lzw = 5;

TEST_F(TiffExamination, TagsAreReadReportedAndPublished)
{
    tiff_spec spec = plain_tiff(40, 17, 3, 2);
    spec.set_short(274, {3});
    spec.set_long(278, {17});
    image_chroma_x_shift = image_chroma_y_shift = 2;
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(printed(),
              "TIFF inkset not available\n"
              "TIFF: 40 x 17 8-bit/sample 3 sample/pixel fill=1 photo=2 orient=3 inkset=0\n"
              "      1 strips with 2040 pixels 17 rows per strip (120 per line)\n");
    EXPECT_EQ(tiff_bps, 8U);
    EXPECT_EQ(tiff_orientation, 3U);
    EXPECT_EQ(tiff_spp, 3U);
    EXPECT_EQ(tiff_fillorder, 1U);
    EXPECT_EQ(tiff_photometric, 2U);
    EXPECT_EQ(tiff_width, 40U);
    EXPECT_EQ(tiff_height, 17U);
    EXPECT_EQ(tiff_stripheight, 17U);
    EXPECT_EQ(tiff_inkset, 0U);
    EXPECT_EQ(tiff_bytes_per_row, 120U);
    EXPECT_EQ(tiff_stripsize, 2040U);
    EXPECT_EQ(tiff_strips, 1U);
    EXPECT_EQ(image_width, 40);
    EXPECT_EQ(image_height, 17);
    EXPECT_EQ(image_buffer_height, 32);
    EXPECT_EQ(image_chroma_x_shift, 0);
    EXPECT_EQ(image_chroma_y_shift, 0);
    EXPECT_NE(tiff_image, nullptr);
}

TEST_F(TiffExamination, BigEndianTagsReadTheSame)
{
    tiff_spec spec = plain_tiff(40, 17, 3, 2);
    spec.big_endian = true;
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(tiff_bps, 8U);
    EXPECT_EQ(tiff_orientation, 1U);
    EXPECT_EQ(tiff_spp, 3U);
    EXPECT_EQ(tiff_fillorder, 1U);
    EXPECT_EQ(tiff_photometric, 2U);
    EXPECT_EQ(tiff_width, 40U);
    EXPECT_EQ(tiff_height, 17U);
}

TEST_F(TiffExamination, UpperHalvesOfShortTagsAreZero)
{
    tiff_bps = tiff_orientation = tiff_spp = tiff_fillorder = UINT32_MAX;
    tiff_photometric = tiff_inkset = UINT32_MAX;
    ASSERT_EQ(examine(plain_tiff(4, 4, 4, 5)), 0);
    EXPECT_EQ(tiff_bps, 8U);
    EXPECT_EQ(tiff_orientation, 1U);
    EXPECT_EQ(tiff_spp, 4U);
    EXPECT_EQ(tiff_fillorder, 1U);
    EXPECT_EQ(tiff_photometric, 5U);
    EXPECT_EQ(tiff_inkset, 1U);
}

// --- tags ---------------------------------------------------------------------------------------

struct tag_case {
    const char* name;
    uint32_t tag;
    bool mandatory;
    const char* message;
};

class TiffTag : public TiffExamination, public testing::WithParamInterface<tag_case> {};

TEST_P(TiffTag, AbsenceIsReportedAndRefusesMandatoryTags)
{
    failing_calls::plan.tiff_tag = GetParam().tag;
    const int result = examine(plain_tiff(4, 4, 4, 5));
    EXPECT_EQ(result, GetParam().mandatory ? 1 : 0);
    EXPECT_EQ(tiff_image == nullptr, GetParam().mandatory);
    EXPECT_EQ(printed().substr(0, std::string(GetParam().message).size()), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Tags, TiffTag,
    testing::Values(tag_case{"Bps", 258, true, "TIFF bits per sample not available\n"},
                    tag_case{"Orientation", 274, false, "TIFF orientation not available\n"},
                    tag_case{"Spp", 277, true, "TIFF samples/pixel not available\n"},
                    tag_case{"Fillorder", 266, false, "TIFF fillorder not available\n"},
                    tag_case{"Photometric", 262, true, "TIFF photometric not available\n"},
                    tag_case{"Width", 256, true, "TIFF width not available\n"},
                    tag_case{"Length", 257, true, "TIFF length not available\n"},
                    tag_case{"StripHeight", 278, true, "TIFF strip height not available\n"}),
    [](const auto& tag) { return tag.param.name; });

TEST_F(TiffExamination, InkSetIsOptionalButCmykNeedsIt)
{
    tiff_spec spec = plain_tiff(4, 4, 4, 5);
    spec.tags.erase(332);
    EXPECT_EQ(examine(spec), 1);
    const std::string text = printed();
    EXPECT_EQ(text.find("TIFF inkset not available\n"), 0U);
    EXPECT_NE(text.find("Unknown TIFF color format\n"), std::string::npos);
}

TEST_F(TiffExamination, OptionalTagsReadZeroWhenAbsent)
{
    tiff_spec spec = plain_tiff(4, 4, 1, 1);
    tiff_orientation = tiff_fillorder = tiff_inkset = 9;
    spec.tags.erase(274);
    spec.tags.erase(266);
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(tiff_orientation, 0U);
    EXPECT_EQ(tiff_fillorder, 0U);
    EXPECT_EQ(tiff_inkset, 0U);
    EXPECT_EQ(printed().find("TIFF orientation not available\n"
                             "TIFF fillorder not available\n"
                             "TIFF inkset not available\n"
                             "TIFF: 4 x 4 "),
              0U);
}

TEST_F(TiffExamination, TilesWithoutAStripHeightAreRefused)
{
    tiff_spec spec = plain_tiff(16, 16, 1, 1);
    spec.tags.erase(278);
    spec.set_short(322, {16});
    spec.set_short(323, {16});
    spec.set_long(324, {8});
    spec.set_long(325, {256});
    expect_refusal(spec, "TIFF strip height not available\n");
}

TEST_F(TiffExamination, TilesWithAStripHeightPass)
{
    tiff_spec spec = plain_tiff(16, 16, 1, 1);
    spec.set_short(322, {16});
    spec.set_short(323, {16});
    spec.set_long(324, {8});
    spec.set_long(325, {256});
    EXPECT_EQ(examine(spec), 0);
}

// --- strips -------------------------------------------------------------------------------------

TEST_F(TiffExamination, SeparatePlanesAreNotRefused)
{
    tiff_spec spec = plain_tiff(4, 4, 3, 2);
    spec.set_short(284, {2});
    spec.strips.assign(3, bytes(16));
    EXPECT_EQ(examine(spec), 0);
}

TEST_F(TiffExamination, PlanarIsRefusedOnlyWhenTheFailedQueryStillReturnsIt)
{
    failing_calls::plan.tiff_tag = 284;
    failing_calls::plan.tiff_value = 2;
    expect_refusal(plain_tiff(4, 4, 3, 2), "TIFF must not be planar\n");
    failing_calls::plan.tiff_value = 1;
    EXPECT_EQ(examine(plain_tiff(4, 4, 3, 2)), 0);
}

TEST_F(TiffExamination, MissingStripsAreRefused)
{
    failing_calls::plan.tiff_no_strips = true;
    expect_refusal(plain_tiff(4, 4, 3, 2), "TIFF strip info not available\n");
}

TEST_F(TiffExamination, EmptyStripsAreRefused)
{
    failing_calls::plan.tiff_no_strip_size = true;
    expect_refusal(plain_tiff(4, 4, 3, 2), "TIFF strip info not available\n");
}

TEST_F(TiffExamination, EmptyRowsAreRefusedAfterTheReport)
{
    failing_calls::plan.tiff_no_scanline = true;
    expect_refusal(plain_tiff(4, 4, 3, 2),
                   "      1 strips with 48 pixels 4 rows per strip (0 per line)\n"
                   "Invalid strip info\n");
}

TEST_F(TiffExamination, RowsPerStripBeyondTheHeightIsReportedUnchanged)
{
    tiff_spec spec = plain_tiff(4, 4, 1, 1);
    spec.set_short(259, {compression_lzw});
    spec.set_long(278, {0xFFFFFFFF});
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(tiff_stripheight, 0xFFFFFFFF);
    EXPECT_TRUE(has_printed(" -1 rows per strip (4 per line)\n"));
}

TEST_F(TiffExamination, StripSizeIsTruncatedTo32Bits)
{
    // 16384 x 16384 pixels of 64 bits are 2^31 bytes; with 128 bits they are 2^32 bytes, which 32
    // bits truncate to 0.
    tiff_spec spec = plain_tiff(1, 1, 1, 1);
    spec.set_short(259, {compression_lzw});
    spec.set_long(256, {16384});
    spec.set_long(257, {16384});
    spec.set_long(278, {16384});
    spec.set_short(258, {64});
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(tiff_stripsize, 0x80000000U);
    free_all_tiff();
    printed();
    spec.set_short(258, {128});
    expect_refusal(spec, "TIFF strip info not available\n");
}

// --- size and samples ---------------------------------------------------------------------------

tiff_spec sized(uint32_t width, uint32_t height)
{
    tiff_spec spec = plain_tiff(1, 1, 1, 1);
    spec.set_long(256, {width});
    spec.set_long(257, {height});
    spec.set_long(278, {1});
    spec.set_long(273, std::vector<uint32_t>(height, 8));
    spec.set_long(279, std::vector<uint32_t>(height, width));
    return spec;
}

TEST_F(TiffExamination, LargestSizePasses)
{
    ASSERT_EQ(examine(sized(16384, 16384)), 0);
    EXPECT_EQ(image_width, 16384);
    EXPECT_EQ(image_height, 16384);
    EXPECT_EQ(image_buffer_height, 16384);
}

TEST_F(TiffExamination, LargerSizesAreRefused)
{
    expect_refusal(sized(16385, 1), "Too large or invalid TIFF dimensions\n");
    expect_refusal(sized(1, 16385), "Too large or invalid TIFF dimensions\n");
    expect_refusal(sized(0x7FFFFFFF, 1), "Too large or invalid TIFF dimensions\n");
}

TEST_F(TiffExamination, EmptySizesAreRefused)
{
    EXPECT_EQ(examine(sized(0, 1)), 1);
    EXPECT_EQ(examine(sized(1, 0)), 1);
    EXPECT_EQ(tiff_image, nullptr);
}

TEST_F(TiffExamination, SixSamplesPassAndSevenDoNot)
{
    EXPECT_EQ(examine(plain_tiff(4, 4, 6, 2)), 0);
    free_all_tiff();
    expect_refusal(plain_tiff(4, 4, 7, 2), "Too many channels\n");
}

// --- opening and closing ------------------------------------------------------------------------

TEST_F(TiffExamination, SecondExaminationIsABugAndKeepsTheFirst)
{
    ASSERT_EQ(examine(plain_tiff(4, 4, 1, 1)), 0);
    printed();
    TIFF* const image = tiff_image;
    EXPECT_EQ(examine_tiff_file(), 1);
    EXPECT_EQ(printed(), "BUG: examine_tiff_file() when already opened\n");
    EXPECT_EQ(tiff_image, image);
    EXPECT_EQ(tiff_width, 4U);
}

TEST_F(TiffExamination, NoFileHandleLeavesTheStateZeroed)
{
    tiff_width = tiff_height = tiff_orientation = tiff_inkset = tiff_bps = 9;
    scripted::plan.file_handle_fails = true;
    EXPECT_EQ(examine(plain_tiff(4, 4, 1, 1)), 1);
    EXPECT_EQ(printed(), "Unable to get file handle\n");
    EXPECT_EQ(tiff_width + tiff_height + tiff_orientation + tiff_inkset + tiff_bps, 0U);
}

TEST_F(TiffExamination, FileThatIsNoTiffIsRefused)
{
    scripted::set_picture(bytes(100, 'x'));
    EXPECT_EQ(examine_tiff_file(), 1);
    const std::string text = printed();
    EXPECT_EQ(text.substr(text.find('\n') + 1), "TIFF did not open file\n");
    EXPECT_EQ(text.substr(0, 20), "TIFF ERROR: picture:");
}

TEST_F(TiffExamination, FileTruncatedAtEveryByteIsRefusedOrAccepted)
{
    const bytes whole = write_tiff(plain_tiff(4, 4, 3, 2));
    for (size_t length = 0; length < whole.size(); ++length) {
        scripted::set_picture(bytes(whole.begin(), whole.begin() + long(length)));
        examine_tiff_file();
        free_all_tiff();
    }
    EXPECT_EQ(tiff_image, nullptr);
}

TEST_F(TiffExamination, MoreStripsThanTheFileCanHoldAreRefused)
{
    // 16 million strips, and the maximum of 32 bits. The table of the latter alone would take
    // gigabytes.
    for (const uint32_t rows : {0xFFFFFFU, 0xFFFFFFFFU}) {
        tiff_spec spec = plain_tiff(1, 1, 1, 1);
        spec.set_long(257, {rows});
        spec.set_long(278, {1});
        expect_refusal(spec, "TIFF did not open file\n");
    }
}

TEST_F(TiffExamination, TagsLargerThanTheFileAreSkipped)
{
    tiff_spec spec = plain_tiff(4, 4, 1, 1);
    spec.set_long(33333, {1, 2, 3});
    bytes file = write_tiff(spec);
    const bytes entry = {33333 & 0xFF, 33333 >> 8, 4, 0, 3, 0, 0, 0};
    const auto found = std::search(file.begin(), file.end(), entry.begin(), entry.end());
    ASSERT_NE(found, file.end());
    *(found + 7) = 0x3F; // at least 2^30 values
    scripted::set_picture(file);
    EXPECT_EQ(examine_tiff_file(), 0);
    EXPECT_TRUE(has_printed("TIFF WARNING: "));
}

// `tags` unknown tags whose values all share the bytes of the strip.
tiff_spec sharing_tags(uint32_t size, uint16_t tags)
{
    constexpr uint16_t first_private_tag = 40000;
    tiff_spec spec = plain_tiff(1, 1, 1, 1);
    spec.strips = {bytes(size, 7)};
    for (uint16_t i = 0; i < tags; ++i) {
        spec.tags[static_cast<uint16_t>(first_private_tag + i)] = {TIFF_VALUE_BYTE, {}, size};
    }
    return spec;
}

TEST_F(TiffExamination, TagsThatShareTheirBytesAreReadUpToAMultipleOfTheFileSize)
{
    constexpr uint32_t strip = 1 << 20;
    ASSERT_EQ(examine(sharing_tags(strip, 2)), 0);
    free_all_tiff();
    printed();
    expect_refusal(sharing_tags(strip, 3),
                   "TIFF ERROR: picture: Its tags want more bytes than the file holds\n"
                   "TIFF did not open file\n");
}

TEST_F(TiffExamination, ReadsAreNotLimitedOnceTheFileIsOpen)
{
    constexpr uint32_t size = 1 << 20;
    ASSERT_EQ(examine(sharing_tags(size, 2)), 0);
    bytes strip(size);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(TIFFReadRawStrip(tiff_image, 0, strip.data(), size), size);
    }
}

#if TIFFLIB_VERSION >= 20221213

TEST_F(TiffExamination, SingleAllocationsOfTheLibraryAreLimited)
{
    ASSERT_EQ(examine(plain_tiff(4, 4, 1, 1)), 0);
    EXPECT_EQ(failing_calls::plan.seen_tiff_limit, int64_t{1} << 31);
}

#endif

TEST_F(TiffExamination, FileIsReadAndNeverMapped)
{
    ASSERT_EQ(examine(plain_tiff(64, 64, 3, 2)), 0);
    const std::string text = read_text("/proc/self/maps");
    EXPECT_NE(text.find("libtiff"), std::string::npos);
    EXPECT_EQ(text.find("memfd:picture"), std::string::npos);
}

TEST_F(TiffExamination, FileTruncatedAfterOpeningRaisesNoSignal)
{
    ASSERT_EQ(examine(plain_tiff(64, 64, 3, 2)), 0);
    ASSERT_EQ(ftruncate(vexa_meta->file_fd, 8), 0);
    bytes strip(size_t{64} * 64 * 3);
    EXPECT_LE(TIFFReadEncodedStrip(tiff_image, 0, strip.data(), tmsize_t(strip.size())), 0);
}

TEST_F(TiffExamination, LibraryMessagesStayOnOneLineWhateverTheFileName)
{
    scripted::set_picture(bytes(100, 'x'));
    vexa_meta->file_name = "two\nlines\x1B[31m%n%s\xC2\x9B";
    EXPECT_EQ(examine_tiff_file(), 1);
    const std::string text = printed();
    EXPECT_THAT(text, testing::StartsWith("TIFF ERROR: two\\x0Alines\\x1B[31m%n%s\\xC2\\x9B: Not"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(TiffExamination, CleanUpKeepsSizeOrientationAndInkSet)
{
    ASSERT_EQ(examine(plain_tiff(4, 5, 4, 5)), 0);
    printed();
    free_all_tiff();
    EXPECT_EQ(tiff_image, nullptr);
    EXPECT_EQ(tiff_bps, 0U);
    EXPECT_EQ(tiff_spp, 0U);
    EXPECT_EQ(tiff_fillorder, 0U);
    EXPECT_EQ(tiff_photometric, 0U);
    EXPECT_EQ(tiff_stripheight, 0U);
    EXPECT_EQ(tiff_bytes_per_row, 0U);
    EXPECT_EQ(tiff_stripsize, 0U);
    EXPECT_EQ(tiff_strips, 0U);
    EXPECT_EQ(tiff_width, 4U);
    EXPECT_EQ(tiff_height, 5U);
    EXPECT_EQ(tiff_orientation, 1U);
    EXPECT_EQ(tiff_inkset, 1U);
    free_all_tiff();
    EXPECT_EQ(printed(), "");
}

} // namespace
