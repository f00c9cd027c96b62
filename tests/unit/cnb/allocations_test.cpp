#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/cnb.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/domain.h"
#include "tests/unit/cnb/cnb_fixture.h"

namespace {

constexpr uint64_t size_of_buffer = 10'000;

class Allocations : public cnb_test::cnb {
protected:
    Allocations()
    {
        platform::cnb_set_domain("default", 1'000'000);
        cnb_total = size_of_buffer;
        cnb_static_alloc = 1;
        EXPECT_EQ(cnb_default_buffer_load(), 0);
        cnb_alloc_init();
    }

    ~Allocations() override { cnb_alloc_freeall(); } // before the records are destroyed

    static std::string remaining()
    {
        testing::internal::CaptureStderr();
        cnb_alloc_print_remaining_buffers();
        return testing::internal::GetCapturedStderr();
    }

    static bool is_empty(const cnb_allocation& record)
    {
        const cnb_allocation empty;
        return record.buffer == 0 && record.offset == 0 && record.size == 0 &&
               memcmp(record.name, empty.name, sizeof empty.name) == 0;
    }

    // Expects that the allocation fails with this reason.
    static void expect_refusal(cnb_allocation* record, uint64_t size, const std::string& reason)
    {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(cnb_malloc(record, size, "Image"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "CNB allocation of " + std::to_string(size) + " bytes: " + reason + "\n");
    }

    cnb_allocation image;
    cnb_allocation second;
    cnb_allocation third;
};

TEST_F(Allocations, StaticAllocationStartsAtOffset0)
{
    ASSERT_TRUE(cnb_malloc(&image, size_of_buffer, "Image"));
    EXPECT_EQ(image.buffer, image_cnb_buffer);
    EXPECT_EQ(image.offset, 0U);
    EXPECT_EQ(image.size, size_of_buffer);
    EXPECT_STREQ(image.name, "Image");
}

TEST_F(Allocations, OneByteMoreThanTheBufferIsRefused)
{
    expect_refusal(&image, size_of_buffer + 1, "the buffer has no room for it");
    EXPECT_TRUE(is_empty(image));
    expect_refusal(&image, UINT64_MAX, "the buffer has no room for it");
    expect_refusal(&image, 0, "the buffer has no room for it");
}

TEST_F(Allocations, StaticBufferHoldsOneAllocation)
{
    ASSERT_TRUE(cnb_malloc(&image, 100, "Image"));
    expect_refusal(&second, 100, "the buffer has no room for it");
    cnb_free(&image);
    EXPECT_TRUE(cnb_malloc(&second, 100, "Image"));
}

TEST_F(Allocations, RecordInUseIsRefusedAndUnchanged)
{
    cnb_static_alloc = 0;
    ASSERT_TRUE(cnb_malloc(&image, 100, "Image"));
    expect_refusal(&image, 200, "the record holds an allocation already");
    EXPECT_EQ(image.size, 100U);
}

TEST_F(Allocations, NameIsCopiedAndTruncatedTo31Bytes)
{
    ASSERT_TRUE(cnb_malloc(&image, 100, "%s%n%s 100%"));
    EXPECT_STREQ(image.name, "%s%n%s 100%");
    EXPECT_EQ(remaining(), "%s%n%s 100%: 100 bytes at 0 of CNB buffer 1\n");
    cnb_free(&image);
    ASSERT_TRUE(cnb_malloc(&image, 100, "0123456789012345678901234567890123456789"));
    EXPECT_STREQ(image.name, "0123456789012345678901234567890");
    cnb_free(&image);
    ASSERT_TRUE(cnb_malloc(&image, 100, nullptr));
    EXPECT_STREQ(image.name, "");
}

TEST_F(Allocations, FreeEmptiesTheRecordAndMayRunTwice)
{
    cnb_free(&image);
    ASSERT_TRUE(cnb_malloc(&image, 100, "Image"));
    cnb_free(&image);
    EXPECT_TRUE(is_empty(image));
    EXPECT_EQ(remaining(), "");
    cnb_free(&image);
    EXPECT_TRUE(is_empty(image));
}

TEST_F(Allocations, FreeingACopyReleasesNothing)
{
    ASSERT_TRUE(cnb_malloc(&image, 100, "Image"));
    cnb_allocation copy = image;
    cnb_free(&copy);
    EXPECT_TRUE(is_empty(copy));
    EXPECT_EQ(remaining(), "Image: 100 bytes at 0 of CNB buffer 1\n");
    cnb_free(&image);
    EXPECT_EQ(remaining(), "");
}

TEST_F(Allocations, FreeallEmptiesEveryRecord)
{
    cnb_static_alloc = 0;
    ASSERT_TRUE(cnb_malloc(&image, 100, "One"));
    ASSERT_TRUE(cnb_malloc(&second, 100, "Two"));
    cnb_alloc_freeall();
    cnb_alloc_freeall();
    EXPECT_TRUE(is_empty(image));
    EXPECT_TRUE(is_empty(second));
    EXPECT_EQ(remaining(), "");
}

TEST_F(Allocations, EachLiveAllocationIsPrintedOnALine)
{
    cnb_static_alloc = 0;
    EXPECT_EQ(remaining(), "");
    ASSERT_TRUE(cnb_malloc(&image, 100, "One"));
    ASSERT_TRUE(cnb_malloc(&second, 50, "Two"));
    EXPECT_EQ(remaining(), "One: 100 bytes at 0 of CNB buffer 1\n"
                           "Two: 50 bytes at 128 of CNB buffer 1\n");
}

TEST_F(Allocations, FirstSufficientGapIsUsed)
{
    cnb_static_alloc = 0;
    ASSERT_TRUE(cnb_malloc(&image, 128, "One"));
    ASSERT_TRUE(cnb_malloc(&second, 128, "Two"));
    ASSERT_TRUE(cnb_malloc(&third, 128, "Three"));
    cnb_free(&second);
    cnb_allocation large;
    ASSERT_TRUE(cnb_malloc(&large, 129, "Large"));
    EXPECT_EQ(large.offset, 384U);
    ASSERT_TRUE(cnb_malloc(&second, 128, "Small"));
    EXPECT_EQ(second.offset, 128U);
    cnb_free(&image);
    ASSERT_TRUE(cnb_malloc(&image, 128, "First"));
    EXPECT_EQ(image.offset, 0U);
    cnb_allocation rest;
    expect_refusal(&rest, size_of_buffer - 576 + 1, "the buffer has no room for it");
    ASSERT_TRUE(cnb_malloc(&rest, size_of_buffer - 576, "Rest"));
    EXPECT_EQ(rest.offset, 576U);
    cnb_free(&large);
    cnb_free(&rest);
}

TEST_F(Allocations, MemoryOfAFreedAllocationIsZeroAgain)
{
    ASSERT_TRUE(cnb_malloc(&image, 5000, "Image"));
    memset(platform::default_mapping.base, 0xAB, 5000);
    cnb_free(&image);
    ASSERT_TRUE(cnb_malloc(&image, size_of_buffer, "Image"));
    for (uint64_t i = 0; i < size_of_buffer; ++i) {
        ASSERT_EQ(platform::default_mapping.base[i], 0) << i;
    }
}

TEST_F(Allocations, DropEmptiesTheRecords)
{
    ASSERT_TRUE(cnb_malloc(&image, 100, "Image"));
    cnb_default_buffer_drop();
    EXPECT_TRUE(is_empty(image));
    EXPECT_EQ(remaining(), "");
    cnb_free(&image);
}

} // namespace
