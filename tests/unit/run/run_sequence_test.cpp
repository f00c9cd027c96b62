#include <csignal>
#include <cstring>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/vexa_stillimage.h"
#include "platform/cnb.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/settings.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class RunSequence : public RunFixture {
protected:
    void SetUp() override
    {
        RunFixture::SetUp();
        scripted::set_picture(
            jpeg_writer::write(jpeg_writer::ycbcr(picture_width, picture_height, {2, 2})));
        vexa_oneshot = true; // end after one round of serving
    }

    static bool in_order(const std::string& text, const std::vector<std::string>& pieces)
    {
        size_t at = 0;
        for (const std::string& piece : pieces) {
            at = text.find(piece, at);
            if (at == std::string::npos) {
                ADD_FAILURE() << "missing or out of order: " << piece << "in\n" << text;
                return false;
            }
            at += piece.size();
        }
        return true;
    }

    static std::vector<std::pair<const char*, std::vector<unsigned char>>>
    one_picture_of_each_format()
    {
        tiff_spec tiff = plain_tiff(1, 1, 1, 1);
        tiff.strips = {{0}};
        return {{"JPEG examination failed\n", jpeg_writer::write(jpeg_writer::grey(8, 8))},
                {"PNG examination failed\n", write_png({.rows = {0, 1, 2, 3}})},
                {"TIFF examination failed\n", write_tiff(tiff)},
                {"GIF examination failed\n", write_gif({.frames = {{.indices = {0}}}})},
                {"WebP examination failed\n", lossless_webp(1, 1, {0, 0, 0, 255})}};
    }

    static constexpr int picture_width = 100;
    static constexpr int picture_height = 70;
};

TEST_F(RunSequence, RunsItsStepsInOrder)
{
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_TRUE(
        in_order(printed(), {"* Identified file, updating metadata\n", "JPEG: 100 x 70 image",
                             "(standard metadata state)\nFormat specific:\n"
                             "   Image size: 100 x 70\n* Writing metadata back\n",
                             "CNB buffer stats:\n", "mipmap[0]: 50 x 35 @",
                             "Using CNB buffer 7 [sz=", "Generating mipmap 50 x 35\n",
                             "CNB buffer stats [final]:\n", "mipmap[0]: 50 x 35 @", "Oneshot\n",
                             "--------------REMAINING CNB BUFFER ALLOCATIONS", "Cleaning up\n"}));
    EXPECT_EQ(scripted::log.ready,
              (std::vector<scripted::status_line>{{1, "Ready to serve data"}}));
    EXPECT_EQ(calls("item_to_json_common"), 1);
    EXPECT_EQ(scripted::log.rebuilds, 2U); // after the write-back and when ready
    EXPECT_EQ(calls("vexa_free_all"), 1);
}

TEST_F(RunSequence, PrintsTheBufferItUses)
{
    EXPECT_EQ(run_sequence(), 0);
    char line[128];
    snprintf(line, sizeof line, "Using CNB buffer 7 [sz=%lu unit=%lu frames=1]\n",
             image_decoded_size, image_decoded_unit_size);
    EXPECT_NE(printed().find(line), std::string::npos);
    EXPECT_EQ(cnb_total, image_decoded_unit_size);
    EXPECT_EQ(cnb_static_alloc, 1);
}

TEST_F(RunSequence, ScheduledRebuildIsLeftToThePlatform)
{
    json_next_xmit_rebuild = true;
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_EQ(scripted::log.rebuilds, 0U);
}

TEST_F(RunSequence, RefusedPictureEndsWithStatusOneAndFreesEverything)
{
    scripted::set_picture("not a picture of any kind", 25);
    EXPECT_EQ(run_sequence(), 1);
    EXPECT_EQ(printed(), "FIXME: Unknown file type id\n");
    EXPECT_EQ(calls("vexa_free_all"), 1);
    EXPECT_EQ(calls("cnb_malloc"), 0);
}

TEST_F(RunSequence, SignalDuringTheExaminationEndsWithoutStoringAnything)
{
    for (const auto& [failure, file] : one_picture_of_each_format()) {
        for (bool* mode : {&vexa_oneshot, &vexa_identify_only, &vexa_create_meta}) {
            SCOPED_TRACE(failure);
            vexa_oneshot = vexa_identify_only = vexa_create_meta = false;
            *mode = true;
            vexa_set_string(&vexa_file_type, nullptr);
            vexa_do_write_metadata = false;
            scripted::log = {};
            scripted::set_picture(file);
            DIE4 = 1;
            EXPECT_EQ(run_sequence(), mode == &vexa_oneshot ? 0 : 1);
            const std::string text = printed();
            EXPECT_NE(text.find(failure), std::string::npos) << text;
            EXPECT_EQ(text.find("Format specific"), std::string::npos) << text;
            EXPECT_EQ(scripted::log.metadata_writes, 0U);
            EXPECT_EQ(calls("cnb_malloc"), 0);
            EXPECT_EQ(calls("vexa_free_all"), 1);
            EXPECT_EQ(gif_image, nullptr);
        }
    }
}

TEST_F(RunSequence, TooShortPictureEndsWithoutAMessage)
{
    scripted::set_picture("GIF89a 15 bytes", 15);
    EXPECT_EQ(run_sequence(), 1);
    EXPECT_EQ(printed(), "");
}

TEST_F(RunSequence, IdentifyOnlyEndsAfterTheWriteBack)
{
    for (bool* mode : {&vexa_identify_only, &vexa_create_meta}) {
        vexa_identify_only = vexa_create_meta = false;
        *mode = true;
        vexa_set_string(&vexa_file_type, nullptr);
        scripted::log = {};
        EXPECT_EQ(run_sequence(), 0);
        EXPECT_EQ(scripted::log.metadata_writes, 1U);
        EXPECT_EQ(calls("metadata_v4_metadata_close_file"), 1);
        EXPECT_EQ(calls("vexa_free_all"), 1);
        EXPECT_EQ(calls("item_to_json_common"), 0);
        EXPECT_EQ(printed().find("CNB buffer stats"), std::string::npos);
    }
}

TEST_F(RunSequence, MissingCacheEndsWithStatusOne)
{
    scripted::plan.cache_creation_fails = true;
    EXPECT_EQ(run_sequence(), 1);
    EXPECT_TRUE(in_order(printed(), {"Cannot create cache\n"}));
    EXPECT_EQ(calls("vexa_free_all"), 1);
}

TEST_F(RunSequence, WaitsForTheBufferServingTheSocket)
{
    scripted::plan.buffer_loads_until_ready = 4;
    uint64_t rounds_before = 0;
    scripted::plan.on_idle = [&] { rounds_before += image_cnb_buffer_fd < 0 ? 1 : 0; };
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_EQ(rounds_before, 4U);
}

TEST_F(RunSequence, SignalDuringTheWaitEndsThroughCleanUp)
{
    scripted::plan.buffer_loads_until_ready = 1000;
    scripted::plan.die_after_idle = 3;
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_TRUE(in_order(printed(), {"Cleaning up\n"}));
    EXPECT_EQ(scripted::log.idle_rounds, 3U);
    EXPECT_EQ(printed().find("Caller requested to exit"), std::string::npos);
    EXPECT_EQ(calls("cnb_malloc"), 0);
    EXPECT_TRUE(scripted::log.ready.empty());
}

TEST_F(RunSequence, ExitRequestDuringTheWaitIsObeyed)
{
    scripted::plan.buffer_loads_until_ready = 1000;
    scripted::plan.exit_after_idle = 2;
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
    EXPECT_TRUE(in_order(printed(), {"Caller requested to exit\n", "Cleaning up\n"}));
    EXPECT_EQ(calls("cnb_malloc"), 0);
}

TEST_F(RunSequence, FailedSocketEndsTheWait)
{
    scripted::plan.buffer_loads_until_ready = 1000;
    scripted::plan.comm_work = -1;
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_TRUE(in_order(printed(), {"Cleaning up\n"}));
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
    EXPECT_EQ(printed().find("Caller requested to exit"), std::string::npos);
}

TEST_F(RunSequence, RefusedAllocationEndsWithStatusOneAndFreesNothing)
{
    scripted::plan.allocation_fails = true;
    EXPECT_EQ(run_sequence(), 1);
    EXPECT_TRUE(in_order(printed(), {"Using CNB buffer 7 [", "CNB allocation failed\n"}));
    EXPECT_EQ(calls("vexa_free_all"), 0);
}

TEST_F(RunSequence, SignalDuringTheAllocationEndsThroughCleanUp)
{
    scripted::plan.signal_in_allocation = true;
    EXPECT_EQ(run_sequence(), 0);
    const std::string text = printed();
    EXPECT_EQ(text.find("CNB allocation failed"), std::string::npos);
    EXPECT_TRUE(in_order(text, {"Using CNB buffer 7 [", "Cleaning up\n"}));
    EXPECT_EQ(calls("vexa_free_all"), 1);
    EXPECT_TRUE(scripted::log.ready.empty());
}

TEST_F(RunSequence, UnmappableScanlineListsAreReportedAndServingContinues)
{
    scripted::plan.unmappable = {0, UINT64_C(1) << 40};
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_TRUE(in_order(printed(), {"Error: Unable to set up scanline list\n",
                                     "Error: Unable to set up scanline list\n",
                                     "Failed to memory-map Y plane\n", "Oneshot\n"}));
}

TEST_F(RunSequence, FailedDecodeIsReportedAndServed)
{
    auto file = jpeg_writer::write(jpeg_writer::grey(64, 64));
    jpeg_writer::set_precision(file, 12);
    scripted::set_picture(file);
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_TRUE(in_order(printed(), {"jpeg_start_decompress() threw an error. giving up\n",
                                     "WARNING: Failed to decode JPEG\n",
                                     "Generating mipmap 32 x 32\n", "Oneshot\n"}));
    EXPECT_EQ(scripted::log.ready.size(), 1U);
}

TEST_F(RunSequence, SignalDuringDecodingSkipsThePyramidAndEndsServingAtOnce)
{
    vexa_oneshot = false;
    scripted::plan.die_after_idle = 2;
    EXPECT_EQ(run_sequence(), 0);
    const std::string text = printed();
    EXPECT_EQ(text.find("Generating mipmap"), std::string::npos);
    EXPECT_TRUE(in_order(text, {"CNB buffer stats [final]:\n", "Cleaning up\n"}));
    EXPECT_EQ(calls("json_check_xmit"), 0);
    EXPECT_EQ(mipmaps_avail, 0);
    EXPECT_EQ(scripted::log.ready.size(), 1U);
}

TEST_F(RunSequence, ReaderIsClosedAfterDecoding)
{
    scripted::plan.on_idle = [] {
        if (!scripted::log.ready.empty()) {
            EXPECT_EQ(jpeg_decompress, nullptr);
        }
    };
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_EQ(scripted::open_picture_handles(), 1);
}

TEST_F(RunSequence, UnknownJpegColourSpaceAborts)
{
    ASSERT_EQ(examine_jpeg_file(), 0);
    image_file_type = IMAGE_JPEG;
    jpeg_decompress->jpeg_color_space = JCS_RGB;
    leave_stderr();
    EXPECT_EXIT(decode_picture(), testing::KilledBySignal(SIGABRT),
                "Not yet ready to handle decoding\n");
}

TEST_F(RunSequence, UndersizedPictureBreaksAnInvariant)
{
    image_width = 0;
    image_height = 1;
    image_buffer_height = 16;
    leave_stderr();
    EXPECT_EXIT(layout_full_size(), testing::KilledBySignal(SIGABRT), "image_width > 0");
}

} // namespace
