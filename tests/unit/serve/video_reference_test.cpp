#include <climits>
#include <map>
#include <memory>
#include <vector>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/serve/video_reference.h"
#include "platform/run_state.h"
#include "platform/settings.h"
#include "tests/support/failing_calls.h"
#include "tests/unit/serve/serve_fixture.h"

namespace {

mipmap_image picture_of(int width, int height)
{
    mipmap_image picture = {};
    picture.width = width;
    picture.height = height;
    return picture;
}

// --- choose_level -------------------------------------------------------------------------------

class ChooseLevel : public testing::Test {
protected:
    int chosen(int width, int height, int available = 3) const
    {
        return choose_level(width, height, full_size, levels, available);
    }

    const mipmap_image full_size = picture_of(1000, 800);
    const mipmap_image levels[4] = {picture_of(500, 400), picture_of(250, 200),
                                    picture_of(125, 100), picture_of(62, 50)};
};

TEST_F(ChooseLevel, UnknownSizeGetsTheFullPicture)
{
    EXPECT_EQ(chosen(0, 0), 0);
    EXPECT_EQ(chosen(0, 9), 0);
    EXPECT_EQ(chosen(9, 0), 0);
}

TEST_F(ChooseLevel, ThreeQuartersCoverageGetsTheFullPicture)
{
    EXPECT_EQ(chosen(750, 600), 0);
    EXPECT_EQ(chosen(740, 592), 1);
    EXPECT_EQ(chosen(5000, 5000), 0);
}

TEST_F(ChooseLevel, CoverageIsTheGeometricMeanOfBothAxes)
{
    EXPECT_EQ(chosen(1000, 450), 0); // sqrt(1 * 0.5625) = 0.75
    EXPECT_EQ(chosen(1000, 449), 1);
    EXPECT_EQ(chosen(2000, 225), 0);
}

TEST_F(ChooseLevel, LargestCoveredLevelIsTaken)
{
    EXPECT_EQ(chosen(375, 300), 1);
    EXPECT_EQ(chosen(374, 300), 2);
    EXPECT_EQ(chosen(188, 150), 2);
    EXPECT_EQ(chosen(187, 150), 3);
}

TEST_F(ChooseLevel, SmallestLevelIsTakenWhenNoneIsCovered)
{
    EXPECT_EQ(chosen(1, 1), 3);
    EXPECT_EQ(chosen(1, 1, 1), 1);
    EXPECT_EQ(chosen(1, 1, 4), 4);
}

TEST_F(ChooseLevel, LastLevelIsTakenWithoutReadingItsRecord)
{
    const mipmap_image unusable[1] = {};
    EXPECT_EQ(choose_level(1, 1, full_size, unusable, 1), 1);
    EXPECT_EQ(choose_level(1, 1, full_size, nullptr, 1), 1);
}

TEST_F(ChooseLevel, WithoutLevelsTheFullPictureIsTaken)
{
    EXPECT_EQ(choose_level(1, 1, full_size, nullptr, 0), 0);
}

TEST_F(ChooseLevel, NegativeAndHugeSizesGiveAValidLevel)
{
    const int odd[] = {INT_MIN, -5, -1, 0, 1, 5, INT_MAX};
    for (const int width : odd) {
        for (const int height : odd) {
            for (int available = 0; available <= 4; ++available) {
                const int level = chosen(width, height, available);
                EXPECT_GE(level, 0);
                EXPECT_LE(level, available);
            }
        }
    }
    EXPECT_EQ(chosen(-1, 5), 3); // the coverage is NaN, so no level is covered
    EXPECT_EQ(chosen(INT_MAX, INT_MAX), 0);
}

TEST_F(ChooseLevel, PictureWithoutASizeIsSafe)
{
    const mipmap_image nothing = {};
    EXPECT_EQ(choose_level(5, 5, nothing, nullptr, 0), 0);
    EXPECT_EQ(choose_level(-5, 5, nothing, levels, 3), 3);
}

// --- frame_at -----------------------------------------------------------------------------------

const std::map<uint64_t, uint64_t> timeline = {{0, 0}, {10, 1}, {20, 2}};

TEST(FrameAt, WithoutATimelineAUnitIsAFrame)
{
    EXPECT_EQ(frame_at({}, 5, 0), 0U);
    EXPECT_EQ(frame_at({}, 5, 3), 3U);
    EXPECT_EQ(frame_at({}, 5, 4), 4U);
    EXPECT_EQ(frame_at({}, 5, 9), 4U);
    EXPECT_EQ(frame_at({}, 5, UINT64_MAX), 4U);
}

TEST(FrameAt, WithoutFramesNothingIsClamped)
{
    EXPECT_EQ(frame_at({}, 0, 9), 9U);
    EXPECT_EQ(frame_at(timeline, 0, 25), 2U);
}

TEST(FrameAt, TimelineGivesTheLastStartedFrame)
{
    EXPECT_EQ(frame_at(timeline, 3, 0), 0U);
    EXPECT_EQ(frame_at(timeline, 3, 9), 0U);
    EXPECT_EQ(frame_at(timeline, 3, 10), 1U);
    EXPECT_EQ(frame_at(timeline, 3, 15), 1U);
    EXPECT_EQ(frame_at(timeline, 3, 20), 2U);
    EXPECT_EQ(frame_at(timeline, 3, 25), 2U);
    EXPECT_EQ(frame_at(timeline, 3, UINT64_MAX), 2U);
}

TEST(FrameAt, BeforeTheTimelineTheFirstFrameIsGiven)
{
    EXPECT_EQ(frame_at({{5, 2}, {9, 1}}, 3, 0), 2U);
    EXPECT_EQ(frame_at({{5, 2}, {9, 1}}, 3, 4), 2U);
}

TEST(FrameAt, TimelineIsClampedToTheFrames)
{
    EXPECT_EQ(frame_at(timeline, 2, 25), 1U);
    EXPECT_EQ(frame_at({{0, 7}}, 2, 0), 1U);
}

// --- the reference ------------------------------------------------------------------------------

class VideoReference : public ServeFixture {
protected:
    void SetUp() override
    {
        ServeFixture::SetUp();
        vexa_ready = true;
        image_width = 1000;
        image_height = 800;
        image_cnb_buffer = 12;
        image_decoded_size = 4'000'000'000;
        vexa_aspect_ratio = {16, 9};
        main_image_mipmap = picture_at(1000, 800, 100, 197);
        mipmap[0] = picture_at(500, 400, 300, 2245);
        mipmap[1] = picture_at(250, 200, 500, 2245);
        mipmaps_avail = 2;
        secondary_image_mipmap_main = {picture_at(1000, 800, 1100, 197),
                                       picture_at(1000, 800, 2100, 197)};
        secondary_image_mipmap[0] = {picture_at(500, 400, 1300, 2245),
                                     picture_at(500, 400, 2300, 2245)};
        secondary_image_mipmap[1] = {picture_at(250, 200, 1500, 2245)};
        reference.context_id = client_id;
    }

    static mipmap_image picture_at(int width, int height, uint64_t offset, uint64_t size)
    {
        mipmap_image picture = picture_of(width, height);
        picture.scanline_data_offset = offset;
        picture.scanline_data_size = size;
        return picture;
    }

    uint64_t loaded_offset(uint64_t index)
    {
        stillimage_video_reference fresh;
        fresh.context_id = client_id;
        fresh.frame_index = index;
        const vexa_video_frame* frame = fresh.load_frame(&error);
        return frame != nullptr ? frame->scanline_list.offset : 0;
    }

    stillimage_video_reference reference;
    long long error = 0;
};

TEST_F(VideoReference, NotReadyIsErrorTen)
{
    vexa_ready = false;
    EXPECT_EQ(reference.load_frame(&error), nullptr);
    EXPECT_EQ(error, 10);
    EXPECT_EQ(reference.frame, nullptr);
}

TEST_F(VideoReference, FrameDescribesThePicture)
{
    const vexa_video_frame* frame = reference.load_frame(&error);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(frame, reference.frame);
    EXPECT_EQ(frame->buffer_number, 12U);
    EXPECT_EQ(frame->base_offset, 0U);
    EXPECT_EQ(frame->area_size, 4'000'000'000U);
    EXPECT_EQ(frame->scanline_list.offset, 100U);
    EXPECT_EQ(frame->scanline_list.size, 197U);
    EXPECT_EQ(frame->scanline_area.offset, 100U);
    EXPECT_EQ(frame->scanline_area.size, 197U);
    EXPECT_EQ(frame->frame_number, 1U);
    EXPECT_EQ(frame->width, 1000);
    EXPECT_EQ(frame->height, 800);
    EXPECT_EQ(frame->aspect_ratio.numerator, 16);
    EXPECT_EQ(frame->aspect_ratio.denominator, 9);
    EXPECT_EQ(frame->has_scanline_list, 1);
    EXPECT_EQ(frame->is_video, 1);
    EXPECT_EQ(frame->refcount, 0);
}

TEST_F(VideoReference, LevelKeepsTheFullSize)
{
    want_size(250, 200);
    reference.frame_index = 1;
    const vexa_video_frame* frame = reference.load_frame(&error);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->scanline_list.offset, 1500U);
    EXPECT_EQ(frame->scanline_list.size, 2245U);
    EXPECT_EQ(frame->frame_number, 2U);
    EXPECT_EQ(frame->width, 1000);
    EXPECT_EQ(frame->height, 800);
}

TEST_F(VideoReference, FramesAndLevelsHaveTheirRecords)
{
    EXPECT_EQ(loaded_offset(0), 100U);
    EXPECT_EQ(loaded_offset(1), 1100U);
    EXPECT_EQ(loaded_offset(2), 2100U);
    want_size(500, 400);
    EXPECT_EQ(loaded_offset(0), 300U);
    EXPECT_EQ(loaded_offset(1), 1300U);
    EXPECT_EQ(loaded_offset(2), 2300U);
    want_size(1, 1);
    EXPECT_EQ(loaded_offset(0), 500U);
    EXPECT_EQ(loaded_offset(1), 1500U);
}

TEST_F(VideoReference, FramesPastTheLastAreNullWithoutAnError)
{
    for (const uint64_t index : {UINT64_C(3), UINT64_C(1) << 40, UINT64_MAX}) {
        EXPECT_EQ(loaded_offset(index), 0U);
    }
    want_size(1, 1);
    EXPECT_EQ(loaded_offset(2), 0U);
    EXPECT_EQ(error, 0);
}

TEST_F(VideoReference, UnknownClientGetsTheFullSize)
{
    want_size(1, 1);
    EXPECT_EQ(reference.choose_mipmap_level(), 2);
    reference.context_id = client_id + 1;
    EXPECT_EQ(reference.choose_mipmap_level(), 0);
}

TEST_F(VideoReference, LevelsAreNotServedBeforeTheyExist)
{
    want_size(1, 1);
    mipmaps_avail = 0;
    EXPECT_EQ(reference.choose_mipmap_level(), 0);
    EXPECT_EQ(loaded_offset(0), 100U);
}

TEST_F(VideoReference, LevelFollowsTheClientsSize)
{
    want_size(750, 600);
    EXPECT_EQ(reference.choose_mipmap_level(), 0);
    want_size(740, 592);
    EXPECT_EQ(reference.choose_mipmap_level(), 1);
    want_size(0, 0);
    EXPECT_EQ(reference.choose_mipmap_level(), 0);
}

TEST_F(VideoReference, SecondLoadGivesTheFirstFrame)
{
    vexa_video_frame* const first = reference.load_frame(&error);
    want_size(1, 1);
    EXPECT_EQ(reference.load_frame(&error), first);
    EXPECT_EQ(reference.get_frame(&error), first);
    EXPECT_EQ(first->scanline_list.offset, 100U);
}

TEST_F(VideoReference, GetFrameLoads)
{
    EXPECT_EQ(reference.get_frame(&error), reference.frame);
    EXPECT_NE(reference.frame, nullptr);
}

TEST_F(VideoReference, NewAspectRatioReachesNewFramesOnly)
{
    const vexa_video_frame* first = reference.load_frame(&error);
    vexa_aspect_ratio = {4, 3};
    EXPECT_EQ(first->aspect_ratio.numerator, 16);
    stillimage_video_reference second;
    second.context_id = client_id;
    EXPECT_EQ(second.load_frame(&error)->aspect_ratio.numerator, 4);
}

TEST_F(VideoReference, TimePositionIsMappedToAFrame)
{
    image_decoded_frames = 5;
    reference.time_position = 9;
    EXPECT_EQ(reference.map_frame(&error), 4U);
    image_mapping_points = timeline;
    reference.time_position = 15;
    EXPECT_EQ(reference.map_frame(&error), 1U);
    EXPECT_EQ(error, 0);
}

TEST_F(VideoReference, FactoryReturnsAnEmptyReferenceForAnyOwner)
{
    const std::unique_ptr<vexa_video_frame_reference> made(stillimage_new_video_reference(nullptr));
    const auto* made_reference = dynamic_cast<stillimage_video_reference*>(made.get());
    ASSERT_NE(made_reference, nullptr);
    EXPECT_EQ(made_reference->frame, nullptr);
}

TEST_F(VideoReference, FailedFrameAllocationReturnsNullAndMayBeRetried)
{
    failing_calls::plan.new_object = 1;
    EXPECT_EQ(reference.load_frame(&error), nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_NE(reference.load_frame(&error), nullptr);
}

TEST_F(VideoReference, FailedReferenceAllocationReturnsNull)
{
    failing_calls::plan.new_object = 1;
    EXPECT_EQ(stillimage_new_video_reference(nullptr), nullptr);
}

TEST_F(VideoReference, DeletingAHeldFrameIsReported)
{
    auto* held = new stillimage_video_reference;
    held->context_id = client_id;
    held->load_frame(&error)->refcount = 3;
    testing::internal::CaptureStderr();
    delete held;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: deleting video reference to frame with refcount=3\n");
}

TEST_F(VideoReference, DeletingAFreeFrameOrNoneIsSilent)
{
    testing::internal::CaptureStderr();
    {
        stillimage_video_reference loaded;
        loaded.load_frame(&error);
        const stillimage_video_reference empty;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
