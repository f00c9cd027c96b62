// Programs keep the sizes, offsets and numbers they were compiled with, so none of them may change
// while the library keeps its name. New values are appended; new fields go into new types.
#include <cstddef>

#include <gtest/gtest.h>

#include "client/stillimage_client.h"

namespace {

// Holds on every 64-bit system.
static_assert(sizeof(void*) == 8 && sizeof(stillimage_result) == 4);

TEST(ClientAbi, SizesOfStructs)
{
    EXPECT_EQ(sizeof(stillimage_event), 32U);
    EXPECT_EQ(sizeof(stillimage_picture), 144U);
    EXPECT_EQ(sizeof(stillimage_descriptor_info), 96U);
    EXPECT_EQ(sizeof(stillimage_timeline_entry), 24U);
    EXPECT_EQ(sizeof(stillimage_timeline), 32U);
    EXPECT_EQ(sizeof(stillimage_y4m_stream), 12U);
}

TEST(ClientAbi, OffsetsOfFields)
{
    const struct {
        const char* name;
        size_t offset;
        size_t expected;
    } fields[] = {
#define FIELD(type, name, expected) {#type "." #name, offsetof(stillimage_##type, name), expected}
        FIELD(event, changes, 0),
        FIELD(event, percent, 4),
        FIELD(event, ready, 8),
        FIELD(event, progress, 16),
        FIELD(event, document, 24),
        FIELD(picture, plane, 0),
        FIELD(picture, stride, 32),
        FIELD(picture, plane_width, 48),
        FIELD(picture, plane_height, 64),
        FIELD(picture, width, 80),
        FIELD(picture, height, 84),
        FIELD(picture, full_width, 88),
        FIELD(picture, full_height, 92),
        FIELD(picture, scale_x, 96),
        FIELD(picture, scale_y, 100),
        FIELD(picture, chroma_x_shift, 104),
        FIELD(picture, chroma_y_shift, 105),
        FIELD(picture, range, 106),
        FIELD(picture, matrix, 107),
        FIELD(picture, frame_number, 112),
        FIELD(picture, aspect_numerator, 120),
        FIELD(picture, aspect_denominator, 128),
        FIELD(picture, provisional, 136),
        FIELD(descriptor_info, buffer, 0),
        FIELD(descriptor_info, base_offset, 8),
        FIELD(descriptor_info, area_size, 16),
        FIELD(descriptor_info, scanline_offset, 24),
        FIELD(descriptor_info, scanline_size, 32),
        FIELD(descriptor_info, frame_number, 40),
        FIELD(descriptor_info, width, 48),
        FIELD(descriptor_info, height, 52),
        FIELD(descriptor_info, aspect_numerator, 56),
        FIELD(descriptor_info, aspect_denominator, 64),
        FIELD(descriptor_info, provisional, 72),
        FIELD(descriptor_info, scanline, 80),
        FIELD(descriptor_info, area, 88),
        FIELD(timeline_entry, start, 0),
        FIELD(timeline_entry, duration, 8),
        FIELD(timeline_entry, frame_number, 16),
        FIELD(timeline, scale_numerator, 0),
        FIELD(timeline, scale_denominator, 4),
        FIELD(timeline, duration, 8),
        FIELD(timeline, count, 16),
        FIELD(timeline, entries, 24),
        FIELD(y4m_stream, width, 0),
        FIELD(y4m_stream, height, 4),
        FIELD(y4m_stream, kind, 8),
#undef FIELD
    };
    for (const auto& field : fields) {
        EXPECT_EQ(field.offset, field.expected) << field.name;
    }
}

TEST(ClientAbi, NumbersOfConstants)
{
    const struct {
        const char* name;
        int value;
        int expected;
    } constants[] = {
#define CONSTANT(name, expected) {#name, STILLIMAGE_##name, expected}
        CONSTANT(OK, 0),
        CONSTANT(ERROR_ARGUMENT, -1),
        CONSTANT(ERROR_NO_WORKER, -2),
        CONSTANT(ERROR_TIMEOUT, -3),
        CONSTANT(ERROR_REFUSED, -4),
        CONSTANT(ERROR_NOT_READY, -5),
        CONSTANT(ERROR_NO_FRAME, -6),
        CONSTANT(ERROR_PROTOCOL, -7),
        CONSTANT(ERROR_RECORD, -8),
        CONSTANT(ERROR_SYSTEM, -9),
        CONSTANT(ERROR_VALUE, -10),
        CONSTANT(ERROR_LIMIT, -11),
        CONSTANT(ERROR_NOT_STORED, -12),
        CONSTANT(START_WORKER, 1),
        CONSTANT(CHANGE_PROGRESS, 1),
        CONSTANT(CHANGE_PROVISIONAL, 2),
        CONSTANT(CHANGE_READY, 4),
        CONSTANT(CHANGE_METADATA, 8),
        CONSTANT(CHANGE_GOING_DOWN, 16),
        CONSTANT(CHANGE_CLIENTS, 32),
        CONSTANT(CHANGE_DOCUMENT, 64),
        CONSTANT(Y, 0),
        CONSTANT(U, 1),
        CONSTANT(V, 2),
        CONSTANT(A, 3),
        CONSTANT(PLANES, 4),
        CONSTANT(RANGE_LIMITED, 1),
        CONSTANT(MATRIX_BT601, 1),
        CONSTANT(RGB24, 1),
        CONSTANT(RGBA32, 2),
        CONSTANT(Y4M_MONO, 1),
        CONSTANT(Y4M_420, 2),
        CONSTANT(Y4M_422, 3),
        CONSTANT(Y4M_444, 4),
        CONSTANT(Y4M_444_ALPHA, 5),
#undef CONSTANT
    };
    for (const auto& constant : constants) {
        EXPECT_EQ(constant.value, constant.expected) << constant.name;
    }
}

TEST(ClientAbi, VersionIsOnePointOne)
{
    EXPECT_EQ(stillimage_client_version(), 0x10001U);
}

} // namespace
