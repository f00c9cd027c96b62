#include "bin/examine/image_state.h"
#include "bin/examine/write_back.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using texts = std::vector<std::string>;

class WriteBack : public ExamineFixture {};

TEST_F(WriteBack, ResultIsPrintedAfterTheStandardState)
{
    image_width = 640;
    image_height = 480;
    print_examination_result();
    EXPECT_EQ(printed(), "(standard metadata state)\n"
                         "Format specific:\n"
                         "   Image size: 640 x 480\n");
}

TEST_F(WriteBack, StillPictureLastsForItsFrames)
{
    image_file_type = IMAGE_PNG;
    vexa_time_scale = {25, 1};
    write_metadata_back();
    EXPECT_EQ(vexa_video_streams, 1);
    EXPECT_EQ(vexa_time_duration, 1);
    EXPECT_EQ(vexa_time_scale.numerator, 25);
}

TEST_F(WriteBack, GifLastsItsTotalInHundredths)
{
    image_file_type = IMAGE_GIF;
    image_decoded_frames = 3;
    image_mapping_total = 80;
    write_metadata_back();
    EXPECT_EQ(vexa_video_streams, 1);
    EXPECT_EQ(vexa_time_duration, 80);
    EXPECT_EQ(vexa_time_scale.numerator, 100);
    EXPECT_EQ(vexa_time_scale.denominator, 1);
}

TEST_F(WriteBack, UnchangedListIsNotWrittenButClosed)
{
    write_metadata_back();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(scripted::log.metadata_writes, 0U);
    EXPECT_EQ(scripted::log.calls, (texts{"meta_to_json", "metadata_v4_metadata_close_file"}));
}

TEST_F(WriteBack, ChangedListIsWritten)
{
    add_entry("title", "a picture");
    vexa_do_write_metadata = true;
    write_metadata_back();
    EXPECT_EQ(printed(), "* Writing metadata back\n");
    EXPECT_EQ(scripted::log.written_entries, (texts{"title=a picture"}));
    EXPECT_EQ(scripted::log.calls, (texts{"meta_to_json", "vexa_standard_vars_to_metadata",
                                          "metadata_v4_metadata_close_file"}));
}

TEST_F(WriteBack, ForbiddenUpdateIsNotWritten)
{
    vexa_do_write_metadata = true;
    vexa_metadata_may_update = false;
    write_metadata_back();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(scripted::log.metadata_writes, 0U);
    EXPECT_EQ(scripted::log.calls.back(), "metadata_v4_metadata_close_file");
}

TEST_F(WriteBack, FailedWriteIsReportedAndTheListClosed)
{
    vexa_do_write_metadata = true;
    scripted::plan.metadata_write_fails = true;
    write_metadata_back();
    EXPECT_EQ(printed(), "* Writing metadata back\nProblem writing metadata\n");
    EXPECT_EQ(scripted::log.calls.back(), "metadata_v4_metadata_close_file");
}

} // namespace
