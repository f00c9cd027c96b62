// The outcome of real files, and of small files truncated at every byte or with any byte changed.
#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/jpeg.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "tests/support/caught_abort.h"
#include "tests/support/file_contents.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_literal.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

int decode_raw()
{
    return image_is_monochrome != 0 ? full_decode_jpeg_raw_grayscale() : full_decode_jpeg_raw_yuv();
}

class JpegCorpus : public jpeg_test {
protected:
    static file_bytes stored(const std::string& name) { return read_test_file("jpeg/" + name); }
};

TEST_F(JpegCorpus, PicturesOfOneAndThreeComponentsAreDrawnByTheRules)
{
    const std::vector<std::string> names = {"arithmetic-420.jpg",
                                            "grey-factors-2x2.jpg",
                                            "harvesters-420.jpg",
                                            "landscape-420.jpg",
                                            "peacock-420.jpg",
                                            "peacock-420-cut.jpg",
                                            "peacock-422.jpg",
                                            "peacock-444.jpg",
                                            "peacock-grey.jpg",
                                            "peacock-progressive.jpg",
                                            "peacock-progressive-cut.jpg",
                                            "photo-422.jpg",
                                            "progressive-non-interleaved.jpg",
                                            "restarts-444.jpg",
                                            "size-1x1.jpg",
                                            "size-17x17.jpg",
                                            "wide-16384.jpg"};
    for (const std::string& name : names) {
        reset_for_jpeg();
        const file_bytes file = stored(name);
        open(file);
        EXPECT_EQ(decode(decode_raw), 0) << name;
        EXPECT_TRUE(allocation() == draw_literally(file)) << name;
        EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""})) << name;
    }
}

TEST_F(JpegCorpus, TruncatedFilesAreDrawnAfterAWarningOfTheLibrary)
{
    for (const char* name : {"peacock-420-cut.jpg", "peacock-progressive-cut.jpg"}) {
        reset_for_jpeg();
        open(stored(name));
        EXPECT_EQ(decode(decode_raw), 0) << name;
        EXPECT_EQ(printed, "Premature end of JPEG file\n") << name;
    }
}

TEST_F(JpegCorpus, RefusedPicturesAreReportedWithTheReason)
{
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"all-factors-2x2.jpg", "Unsupported chroma subsampling scheme\n"},
        {"luma-4x1.jpg", "Unsupported chroma subsampling scheme\n"},
        {"missing-scan.jpg", "JPEG library panicked and attempted to exit. Decode failed\n"},
        {"peacock-mixed-factors.jpg", "Unsupported chroma subsampling scheme\n"},
        {"rgb-components.jpg", "JPEGLIB: ERROR: Unsupported colorspace\n"},
        {"wide-16385.jpg", "JPEG image is WAY TOO LARGE\n"},
        {"wide-32540.jpg", "JPEG image is WAY TOO LARGE\n"},
        {"ycck-420-small-k.jpg", "Unsupported chroma subsampling on K channel\n"},
        {"zero-width.jpg", "JPEG library panicked and attempted to exit. Decode failed\n"},
    };
    for (const auto& [name, line] : refused) {
        EXPECT_EQ(examine(stored(name)), -1) << name;
        EXPECT_THAT(printed, EndsWith(line)) << name;
    }
}

TEST_F(JpegCorpus, CmykAndYcckAreDistinguished)
{
    const std::vector<std::pair<std::string, std::string>> accepted = {
        {"cmyk-32x32.jpg", "JPEGLIB: Hoo boy... CYMK.\n"},
        {"cmyk-odd-width.jpg", "JPEGLIB: Hoo boy... CYMK.\n"},
        {"ycck-420.jpg", "JPEGLIB: Hoo boy... YCCK.\n"},
        {"ycck-422.jpg", "JPEGLIB: Hoo boy... YCCK.\n"},
        {"ycck-440.jpg", "JPEGLIB: Hoo boy... YCCK.\n"},
        {"ycck-444.jpg", "JPEGLIB: Hoo boy... YCCK.\n"},
    };
    for (const auto& [name, line] : accepted) {
        reset_for_jpeg();
        EXPECT_EQ(examine(stored(name)), 0) << name;
        EXPECT_THAT(printed, HasSubstr(line)) << name;
    }
}

TEST_F(JpegCorpus, PicturesThatCannotBeStartedAreReported)
{
    const std::vector<std::pair<std::string, std::string>> unstarted = {
        {"bogus-huffman-table.jpg", "'Bogus Huffman table definition')\n"},
        {"twelve-bits.jpg", "'Unsupported JPEG data precision 12')\n"},
    };
    for (const auto& [name, line] : unstarted) {
        reset_for_jpeg();
        open(stored(name));
        EXPECT_EQ(decode(decode_raw), -1) << name;
        EXPECT_THAT(printed, EndsWith(line + "jpeg_start_decompress() threw an error. giving up\n"))
            << name;
    }
}

TEST_F(JpegCorpus, SecondFrameHeaderEndsTheProcess)
{
    open(stored("two-frame-headers.jpg"));
    EXPECT_EXIT(decode_raw(), testing::KilledBySignal(SIGABRT),
                EndsWith("'Invalid JPEG file structure: two SOF markers')\n"
                         "Unexpected longjmp from JPEGLIB error handler\n"));
}

// --- every truncation, every byte ---------------------------------------------------------------

// From examination to decode. Aborts with a message where a file may cause one.
void examine_and_decode()
{
    if (examine_jpeg_file() != 0) {
        EXPECT_EQ(jpeg_decompress, nullptr);
        return;
    }
    layout_full_size();
    scripted::provide_buffer(image_decoded_size);
    decode_raw();
}

class JpegDamage : public jpeg_test {
protected:
    // The file is refused or drawn, or the process aborts with an expected message. Any other
    // outcome ends the whole test program.
    void expect_known_ending(const file_bytes& file)
    {
        static constexpr const char* wanted[] = {
            "Unexpected longjmp from JPEGLIB error handler\n",
            "Assertion `irem <= 16' failed.\n",
        };
        reset_for_jpeg();
        scripted::set_picture(file);
        ++endings[aborts_as_wanted(examine_and_decode, wanted) ? ABORTED
                  : jpeg_decompress == nullptr                 ? REFUSED
                                                               : DRAWN];
        free_all_jpeg_fileio();
        free_all_jpeg_fileio();
        EXPECT_EQ(jpeg_fp, nullptr);
    }

    void expect_known_endings(const file_bytes& file)
    {
        for (size_t size = 0; size < file.size(); ++size) {
            expect_known_ending(first_bytes(file, size));
        }
        for (size_t at = 0; at < file.size(); ++at) {
            for (const unsigned char flip : file_bytes{0x01, 0x10, 0x80, 0xFF}) {
                file_bytes changed = file;
                changed[at] ^= flip;
                expect_known_ending(changed);
            }
        }
        EXPECT_GT(endings[REFUSED], 0);
        EXPECT_GT(endings[DRAWN], 0);
    }

    enum ending { REFUSED, DRAWN, ABORTED, ENDINGS };
    int endings[ENDINGS] = {};
};

TEST_F(JpegDamage, ColourFile)
{
    picture what = ycbcr(17, 17, {2, 2});
    what.quality = 50;
    expect_known_endings(write(what));
    EXPECT_GT(endings[ABORTED], 0);
}

TEST_F(JpegDamage, ProgressiveFile)
{
    picture what = ycbcr(17, 9, {1, 2});
    what.progressive = true;
    what.quality = 30;
    expect_known_endings(write(what));
}

TEST_F(JpegDamage, GreyFile)
{
    picture what = grey(9, 17);
    what.arithmetic = true;
    what.quality = 30;
    expect_known_endings(write(what));
    EXPECT_GT(endings[ABORTED], 0);
}

} // namespace
