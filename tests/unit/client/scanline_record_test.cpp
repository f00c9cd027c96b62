#include <functional>

#include <gtest/gtest.h>

#include "client/scanline_record.h"
#include "tests/support/frame_sample.h"
#include "wire/scanline_format.h"

namespace {

namespace format = scanline_format;

struct judgement {
    bool accepted = false;
    std::string reason;
    stillimage_picture picture = {};
};

judgement judge(const frame_sample& sample)
{
    judgement result;
    result.accepted =
        describe_picture(sample.record(), sample.message.scanline_size, sample.message,
                         sample.area.data(), &result.picture, &result.reason);
    return result;
}

using breaking = std::function<void(frame_sample&)>;

// Why the sample is refused after `work` has changed it; "" when it is accepted.
std::string refusal_after(const breaking& work, const sample_shape& shape = {.alpha = true})
{
    frame_sample sample(shape);
    work(sample);
    const judgement result = judge(sample);
    return result.accepted ? "" : result.reason;
}

breaking field(size_t at, size_t size, uint64_t value)
{
    return [=](frame_sample& sample) { sample.put(at, size, value); };
}

constexpr const char* marks = "its marks are missing";
constexpr const char* outside = "a plane does not lie inside the shared area";
constexpr const char* subsampling = "its chroma subsampling is unknown";
constexpr const char* level = "its size is not that of one level of the picture";
constexpr const char* size_differs = "it is about a picture of another size";
constexpr const char* short_stride = "a row is longer than its stride";

TEST(ScanlineRecord, FullSizePictureIsDescribed)
{
    const frame_sample sample({.full_width = 101, .full_height = 71, .alpha = true});
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    const stillimage_picture& picture = result.picture;
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const bool chroma = p == STILLIMAGE_U || p == STILLIMAGE_V;
        EXPECT_EQ(picture.plane[p], sample.area.data() + sample.offsets[p]);
        EXPECT_EQ(picture.stride[p], sample.strides[p]);
        EXPECT_EQ(picture.plane_width[p], chroma ? 51 : 101);
        EXPECT_EQ(picture.plane_height[p], chroma ? 36 : 71);
    }
    EXPECT_EQ(picture.width, 101);
    EXPECT_EQ(picture.height, 71);
    EXPECT_EQ(picture.full_width, 101);
    EXPECT_EQ(picture.full_height, 71);
    EXPECT_EQ(picture.scale_x, 0x10000);
    EXPECT_EQ(picture.scale_y, 0x10000);
    EXPECT_EQ(picture.chroma_x_shift, 1);
    EXPECT_EQ(picture.chroma_y_shift, 1);
    EXPECT_EQ(picture.range, STILLIMAGE_RANGE_LIMITED);
    EXPECT_EQ(picture.matrix, STILLIMAGE_MATRIX_BT601);
    EXPECT_EQ(picture.frame_number, 1);
    EXPECT_EQ(picture.aspect_numerator, 16);
    EXPECT_EQ(picture.aspect_denominator, 9);
    EXPECT_EQ(picture.provisional, 0);
}

TEST(ScanlineRecord, LevelHasItsSizeAndScale)
{
    const judgement result =
        judge(frame_sample({.full_width = 101, .full_height = 71, .level = 2}));
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.width, 26);
    EXPECT_EQ(result.picture.height, 18);
    EXPECT_EQ(result.picture.full_width, 101);
    EXPECT_EQ(result.picture.full_height, 71);
    EXPECT_EQ(result.picture.scale_x, 0x4000);
    EXPECT_EQ(result.picture.scale_y, 0x4000);
}

TEST(ScanlineRecord, MonochromePictureHasNoChroma)
{
    const judgement result = judge(frame_sample({.chroma = false}));
    ASSERT_TRUE(result.accepted) << result.reason;
    for (const int p : {STILLIMAGE_U, STILLIMAGE_V, STILLIMAGE_A}) {
        EXPECT_EQ(result.picture.plane[p], nullptr);
        EXPECT_EQ(result.picture.stride[p], 0);
        EXPECT_EQ(result.picture.plane_width[p], 0);
        EXPECT_EQ(result.picture.plane_height[p], 0);
    }
}

TEST(ScanlineRecord, StrideZeroMeansAbsentWhateverTheOffset)
{
    frame_sample sample({.full_width = 1, .full_height = 64});
    sample.put(format::at_strides + 2, 2, 0);
    sample.put(format::at_strides + 4, 2, 0);
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.plane[STILLIMAGE_U], nullptr);
    EXPECT_EQ(result.picture.plane[STILLIMAGE_V], nullptr);
}

TEST(ScanlineRecord, LastRowBeforeTheFirstIsHarmless)
{
    frame_sample sample({.full_width = 40, .full_height = 1});
    ASSERT_EQ(sample.get(format::at_last_rows + 2, 2), 65535);
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.plane_height[STILLIMAGE_U], 1);
}

TEST(ScanlineRecord, StrideTruncatedTo16BitsIsRestored)
{
    frame_sample sample({.full_width = 65535, .full_height = 2});
    ASSERT_EQ(sample.get(format::at_strides, 2), 0);
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.stride[STILLIMAGE_Y], 65536);
    EXPECT_EQ(result.picture.stride[STILLIMAGE_U], 32768);
    EXPECT_EQ(result.picture.plane_width[STILLIMAGE_Y], 65535);
}

TEST(ScanlineRecord, SidesUpTo65535PixelsAreDescribed)
{
    for (const uint32_t side : {16'383U, 16'384U, 32'767U, 32'768U, 65'520U, 65'521U, 65'535U}) {
        for (const int halvings : {0, 1, 2, 5}) {
            const frame_sample wide({.full_width = side, .full_height = 3, .level = halvings});
            const judgement result = judge(wide);
            ASSERT_TRUE(result.accepted) << side << ": " << result.reason;
            EXPECT_EQ(result.picture.width, wide.width);
            EXPECT_EQ(result.picture.stride[STILLIMAGE_Y], wide.strides[STILLIMAGE_Y]);
            EXPECT_EQ(result.picture.stride[STILLIMAGE_V], wide.strides[STILLIMAGE_V]);
            const frame_sample high({.full_width = 3, .full_height = side, .level = halvings});
            EXPECT_EQ(judge(high).picture.height, high.height);
        }
    }
}

TEST(ScanlineRecord, LargerSidesAreRefused)
{
    constexpr const char* too_large = "a side of the picture has more than 65535 pixels";
    for (const uint32_t side : {65'536U, 65'537U, 131'073U, 262'144U}) {
        EXPECT_EQ(judge(frame_sample({.full_width = side, .full_height = 3})).reason, too_large);
        EXPECT_EQ(judge(frame_sample({.full_width = 3, .full_height = side})).reason, too_large);
    }
    for (const int32_t side : {65'536, 100 + 65'536, INT32_MAX}) {
        EXPECT_EQ(refusal_after([=](auto& sample) { sample.message.width = side; }), too_large);
        EXPECT_EQ(refusal_after([=](auto& sample) { sample.message.height = side; }), too_large);
    }
}

TEST(ScanlineRecord, LevelsOfEqualSizeAreTheFullSize)
{
    const judgement smallest = judge(frame_sample({.full_width = 1, .full_height = 1, .level = 2}));
    ASSERT_TRUE(smallest.accepted) << smallest.reason;
    EXPECT_EQ(smallest.picture.scale_x, 0x10000);
}

TEST(ScanlineRecord, ChromaOfALevelEndsAtTheRecordsLastRow)
{
    const frame_sample sample({.full_width = 1001, .full_height = 1037, .level = 1});
    ASSERT_EQ(sample.get(format::at_last_rows + 2, 2), 258);
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.plane_width[STILLIMAGE_Y], 501);
    EXPECT_EQ(result.picture.plane_height[STILLIMAGE_Y], 519);
    for (const int p : {STILLIMAGE_U, STILLIMAGE_V}) {
        EXPECT_EQ(result.picture.plane_width[p], 250);
        EXPECT_EQ(result.picture.plane_height[p], 259);
    }
}

TEST(ScanlineRecord, ChromaOfALevelHasAtLeastOneRowAndColumn)
{
    const judgement result = judge(
        frame_sample({.full_width = 3, .full_height = 5, .level = 2, .x_shift = 2, .y_shift = 2}));
    ASSERT_TRUE(result.accepted) << result.reason;
    for (const int p : {STILLIMAGE_U, STILLIMAGE_V}) {
        EXPECT_EQ(result.picture.plane_width[p], 1);
        EXPECT_EQ(result.picture.plane_height[p], 1);
    }
}

TEST(ScanlineRecord, ChromaOfTheFullSizeEndsAtItsStride)
{
    frame_sample sample({.full_width = 17, .full_height = 16});
    sample.put(format::at_strides + 2, 2, 8); // 17 >> 1
    sample.put(format::at_strides + 4, 2, 8);
    const judgement result = judge(sample);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.plane_width[STILLIMAGE_U], 8);
}

TEST(ScanlineRecord, UnknownAspectRatioMeansSquarePixels)
{
    for (const int64_t numerator : {int64_t{0}, int64_t{-4}}) {
        frame_sample sample;
        sample.message.aspect_numerator = numerator;
        const judgement result = judge(sample);
        EXPECT_EQ(result.picture.aspect_numerator, 100);
        EXPECT_EQ(result.picture.aspect_denominator, 70);
    }
}

TEST(ScanlineRecord, ProvisionalFlagIsPassedOn)
{
    frame_sample sample;
    sample.message.flags = comm_protocol::frame_provisional;
    EXPECT_EQ(judge(sample).picture.provisional, 1);
}

TEST(ScanlineRecord, BaseOffsetMovesPlanes)
{
    frame_sample sample;
    sample.area.insert(sample.area.begin(), 32, 0);
    sample.message.base_offset = 32;
    sample.message.area_size += 32;
    judgement result;
    result.accepted = describe_picture(sample.area.data() + 32 + sample.message.scanline_offset,
                                       sample.message.scanline_size, sample.message,
                                       sample.area.data(), &result.picture, &result.reason);
    ASSERT_TRUE(result.accepted) << result.reason;
    EXPECT_EQ(result.picture.plane[STILLIMAGE_Y], sample.area.data() + 32);
}

TEST(ScanlineRecord, EveryInvalidFieldIsRefused)
{
    EXPECT_EQ(refusal_after([](frame_sample&) {}), "");
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(refusal_after(field(format::at_magic + i, 1, 0)), marks);
        EXPECT_EQ(refusal_after(field(format::at_end_mark + i, 1, 0)), marks);
    }
    EXPECT_EQ(refusal_after(field(format::at_area_size, 4, 196)),
              "its size is not the one that the worker named");
    EXPECT_EQ(refusal_after(field(format::at_frame_number, 8, 2)), "it is about another frame");
    EXPECT_EQ(refusal_after(field(format::at_buffer_number, 2, 8)), "it is about another buffer");
    EXPECT_EQ(refusal_after(field(format::at_full_width, 2, 99)), size_differs);
    EXPECT_EQ(refusal_after(field(format::at_full_height, 2, 71)), size_differs);
    EXPECT_EQ(refusal_after(field(format::at_source_width, 8, 101ULL << 16U)), level);
    EXPECT_EQ(refusal_after(field(format::at_source_height, 8, 35ULL << 16U)), level);
    EXPECT_EQ(refusal_after(field(format::at_plane_offsets, 4, format::absent_plane)),
              "the picture has no Y plane");
    for (const size_t p : {STILLIMAGE_U, STILLIMAGE_V}) {
        EXPECT_EQ(refusal_after(field(format::at_plane_offsets + 4 * p, 4, format::absent_plane)),
                  "it has one chroma plane only");
    }
}

TEST(ScanlineRecord, UnknownSubsamplingIsRefused)
{
    for (const size_t at : {format::at_horizontal_masks, format::at_vertical_masks}) {
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_Y, 1, 1)), subsampling);
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_A, 1, 1)), subsampling);
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_U, 1, 0)), subsampling);
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_V, 1, 3)), subsampling);
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_U, 2, 0x0202)), subsampling);
        EXPECT_EQ(refusal_after(field(at + STILLIMAGE_U, 2, 0x0707)), subsampling);
    }
}

TEST(ScanlineRecord, KnownSubsamplingsAreAccepted)
{
    for (const unsigned x : {0U, 1U, 2U}) {
        for (const unsigned y : {0U, 1U, 2U}) {
            const judgement result = judge(frame_sample({.x_shift = x, .y_shift = y}));
            ASSERT_TRUE(result.accepted) << result.reason;
            EXPECT_EQ(result.picture.chroma_x_shift, x);
            EXPECT_EQ(result.picture.chroma_y_shift, y);
        }
    }
}

TEST(ScanlineRecord, ShortStrideIsRefused)
{
    for (const size_t p : {STILLIMAGE_Y, STILLIMAGE_A}) {
        EXPECT_EQ(refusal_after(field(format::at_strides + 2 * p, 2, 99)), short_stride);
        EXPECT_EQ(refusal_after(field(format::at_strides + 2 * p, 2, 100)), "");
    }
    for (const size_t p : {STILLIMAGE_U, STILLIMAGE_V}) {
        EXPECT_EQ(refusal_after(field(format::at_strides + 2 * p, 2, 49)), short_stride);
        EXPECT_EQ(refusal_after(field(format::at_strides + 2 * p, 2, 50)), "");
    }
}

TEST(ScanlineRecord, PlaneOutsideTheAreaIsRefused)
{
    const frame_sample sound({.alpha = true});
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const bool chroma = p == STILLIMAGE_U || p == STILLIMAGE_V;
        const uint64_t rows = chroma ? 35 : 70;
        const uint64_t last = sound.area.size() - sound.strides[p] * rows;
        EXPECT_EQ(refusal_after(field(format::at_plane_offsets + 4 * p, 4, last)), "");
        EXPECT_EQ(refusal_after(field(format::at_plane_offsets + 4 * p, 4, last + 1)), outside);
        EXPECT_EQ(refusal_after(field(format::at_plane_offsets + 4 * p, 4, 0xFFFFFFFE)), outside);
        EXPECT_EQ(refusal_after(field(format::at_strides + 2 * p, 2, 65535)), outside);
    }
}

TEST(ScanlineRecord, InconsistentMessageIsRefused)
{
    const auto with_message = [](const std::function<void(comm_protocol::frame&)>& work) {
        return refusal_after([&](frame_sample& sample) { work(sample.message); });
    };
    constexpr const char* no_size = "the picture has no size";
    EXPECT_EQ(with_message([](auto& m) { m.width = 0; }), no_size);
    EXPECT_EQ(with_message([](auto& m) { m.height = -1; }), no_size);
    EXPECT_EQ(with_message([](auto& m) { m.width = 99; }), size_differs);
    EXPECT_EQ(with_message([](auto& m) { m.buffer = 8; }), "it is about another buffer");
    EXPECT_EQ(with_message([](auto& m) { m.frame_number = 3; }), "it is about another frame");
    EXPECT_EQ(with_message([](auto& m) { m.base_offset = m.area_size + 1; }), outside);
    EXPECT_EQ(with_message([](auto& m) { m.base_offset = UINT64_MAX; }), outside);
    EXPECT_EQ(with_message([](auto& m) { m.area_size = 100; }), outside);
}

TEST(ScanlineRecord, TruncatedRecordIsIncomplete)
{
    const frame_sample sample;
    EXPECT_TRUE(record_is_complete(sample.record(), format::record_size));
    EXPECT_FALSE(record_is_complete(sample.record(), format::record_size - 1));
    EXPECT_FALSE(record_is_complete(sample.record(), 0));
}

} // namespace
