#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/cnb/access_cache.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/domain.h"
#include "tests/support/open_descriptors.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::failing;
using platform::default_mapping;
using platform::present_at_once;
using platform::present_piece;

namespace {

class AccessCache : public cnb_test::cnb {
protected:
    AccessCache() : cache(vexa_global_access_cache_create())
    {
        platform::cnb_set_domain("default", uint64_t{1} << 30);
    }

    ~AccessCache() override
    {
        cnb_alloc_freeall();
        platform::free_access_cache(cache);
    }

    void load(uint64_t size)
    {
        cnb_static_alloc = 1;
        cnb_total = size;
        ASSERT_EQ(cnb_default_buffer_load(), 0);
        ASSERT_TRUE(cnb_malloc(&image, size, "Image"));
    }

    unsigned char* fetch(uint64_t offset, uint64_t length, int mode = access_read)
    {
        return vexa_global_access_cache_quickfetch(cache, image_cnb_buffer, offset, length, mode);
    }

    // Whether the page at `offset` of the buffer is present in this process's page table.
    static bool mapped_in_process(uint64_t offset)
    {
        const auto page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        const auto address = reinterpret_cast<uint64_t>(default_mapping.base) + offset;
        const unique_fd pagemap(open("/proc/self/pagemap", O_RDONLY));
        uint64_t entry = 0;
        EXPECT_EQ(platform::pread_fully(pagemap.get(), &entry, 8, address / page_size * 8), 8);
        return (entry >> 63) != 0;
    }

    vexa_global_access_cache* cache;
    cnb_allocation image;
};

TEST_F(AccessCache, RangeInsideTheBufferIsAPointerIntoTheMapping)
{
    load(10'001);
    EXPECT_EQ(fetch(0, 10'001), default_mapping.base);
    EXPECT_EQ(fetch(123, 1), default_mapping.base + 123);
    EXPECT_EQ(fetch(10'000, 1, access_write), default_mapping.base + 10'000);
}

TEST_F(AccessCache, EmptyRangeIsValidUpToTheEnd)
{
    load(10'001);
    EXPECT_EQ(fetch(0, 0, access_write), default_mapping.base);
    EXPECT_EQ(fetch(10'001, 0, access_write), default_mapping.base + 10'001);
    EXPECT_EQ(fetch(10'002, 0), nullptr);
    EXPECT_EQ(failing.populated_pieces, 0);
}

TEST_F(AccessCache, RangeBeyondTheEndIsNull)
{
    load(10'001);
    errno = 0;
    EXPECT_EQ(fetch(0, 10'002), nullptr);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(fetch(10'001, 1), nullptr);
    EXPECT_EQ(fetch(10'000, 2), nullptr);
}

TEST_F(AccessCache, RangeThatWraps64BitsIsNull)
{
    load(10'001);
    EXPECT_EQ(fetch(UINT64_MAX, 1), nullptr);
    EXPECT_EQ(fetch(1, UINT64_MAX), nullptr);
    EXPECT_EQ(fetch(UINT64_MAX, UINT64_MAX), nullptr);
    EXPECT_EQ(fetch(uint64_t{1} << 32, 1), nullptr);
    EXPECT_EQ(fetch(UINT64_MAX - 5000, 10'000), nullptr);
}

TEST_F(AccessCache, AnotherBufferIsNull)
{
    load(10'001);
    EXPECT_EQ(vexa_global_access_cache_quickfetch(cache, image_cnb_buffer + 1, 0, 1, access_read),
              nullptr);
    EXPECT_EQ(vexa_global_access_cache_quickfetch(cache, 0, 0, 1, access_read), nullptr);
}

TEST_F(AccessCache, WithoutABufferEverythingIsNull)
{
    EXPECT_EQ(vexa_global_access_cache_quickfetch(cache, 0, 0, 0, access_read), nullptr);
    EXPECT_EQ(vexa_global_access_cache_quickfetch(cache, 0, 0, 0, access_write), nullptr);
    cnb_total = 1000;
    ASSERT_EQ(cnb_default_buffer_load(), 0);
    EXPECT_EQ(fetch(0, 1), nullptr); // loaded, but without an allocation
    load(1000);
    const uint32_t number = image_cnb_buffer;
    cnb_default_buffer_drop();
    EXPECT_EQ(vexa_global_access_cache_quickfetch(cache, number, 0, 1, access_read), nullptr);
}

TEST_F(AccessCache, WithoutACacheRangesAreStillFound)
{
    load(1000);
    EXPECT_EQ(vexa_global_access_cache_quickfetch(nullptr, image_cnb_buffer, 7, 1, access_write),
              default_mapping.base + 7);
    vexa_global_access_cache_cleanup_idle(nullptr);
    platform::free_access_cache(nullptr);
}

TEST_F(AccessCache, GetReportsTheBytesUpToTheEndOfTheBuffer)
{
    load(10'001);
    unsigned char* data = nullptr;
    unsigned long aux = 0;
    EXPECT_NE(
        vexa_global_access_cache_get(cache, image_cnb_buffer, 5000, 10, &data, &aux, access_read),
        0);
    EXPECT_EQ(data, default_mapping.base + 5000);
    EXPECT_EQ(aux, 5001U);
}

TEST_F(AccessCache, GetOutsideTheBufferFails)
{
    load(10'001);
    unsigned char* data = nullptr;
    unsigned long aux = 77;
    EXPECT_EQ(
        vexa_global_access_cache_get(cache, image_cnb_buffer, 10'000, 2, &data, &aux, access_write),
        0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(aux, 77U);
}

TEST_F(AccessCache, CleaningKeepsALoadedBuffer)
{
    load(10'001);
    unsigned char* bytes = fetch(100, 50, access_write);
    bytes[0] = 42;
    vexa_global_access_cache_cleanup_idle(cache);
    bytes[1] = 43;
    EXPECT_EQ(fetch(100, 50), bytes);
    EXPECT_EQ(bytes[0], 42);
}

TEST_F(AccessCache, AnyNumberOfRequestsKeepOneMapping)
{
    load(4'000'000);
    fetch(0, 1000, access_write);
    const size_t before = mappings_of_memory_files();
    EXPECT_GT(before, 0U);
    for (uint64_t offset = 0; offset + 3000 < 4'000'000; offset += 17) {
        ASSERT_NE(fetch(offset, 3000, offset % 2 == 0 ? access_read : access_write), nullptr);
        vexa_global_access_cache_cleanup_idle(cache);
    }
    EXPECT_EQ(mappings_of_memory_files(), before);
}

TEST_F(AccessCache, WriteRequestMakesItsPagesPresent)
{
    load(8 * present_piece);
    ASSERT_FALSE(mapped_in_process(2 * present_piece));
    fetch(2 * present_piece + 100, 10, access_write);
    if (failing.populated_pieces == 0) {
        GTEST_SKIP() << "the kernel does not support the call";
    }
    EXPECT_TRUE(mapped_in_process(2 * present_piece));
    EXPECT_TRUE(mapped_in_process(3 * present_piece - 1));
    EXPECT_FALSE(mapped_in_process(2 * present_piece - 1));
    EXPECT_FALSE(mapped_in_process(3 * present_piece));
}

TEST_F(AccessCache, ReadRequestMakesNothingPresent)
{
    load(4 * present_piece);
    fetch(0, 4 * present_piece, access_read);
    EXPECT_EQ(failing.populated_pieces, 0);
}

TEST_F(AccessCache, EachPieceIsPopulatedOnce)
{
    load(4 * present_piece + 5);
    for (uint64_t offset = 0; offset < 4 * present_piece; offset += 4096) {
        ASSERT_NE(fetch(offset, 4096, access_write), nullptr);
        ASSERT_NE(fetch(offset, 4096 + 5, access_write), nullptr);
    }
    EXPECT_EQ(failing.populated_pieces, 5);
    EXPECT_EQ(failing.populated_bytes, 4 * present_piece + 5);
    EXPECT_EQ(failing.max_populated, present_piece);
}

TEST_F(AccessCache, PiecesBetweenPresentOnesArePopulated)
{
    load(8 * present_piece);
    fetch(1 * present_piece, 1, access_write);
    fetch(3 * present_piece, 1, access_write);
    fetch(0, 5 * present_piece, access_write);
    EXPECT_EQ(failing.populated_pieces, 5);
    fetch(0, 5 * present_piece, access_write);
    EXPECT_EQ(failing.populated_pieces, 5);
    fetch(5 * present_piece - 1, 2, access_write);
    EXPECT_EQ(failing.populated_pieces, 6);
}

TEST_F(AccessCache, HugeRangeIsPopulatedInPart)
{
    load(present_at_once + 4 * present_piece);
    fetch(0, present_at_once + 4 * present_piece, access_write);
    EXPECT_EQ(failing.populated_bytes, present_at_once);
    fetch(present_at_once, 1, access_write);
    EXPECT_EQ(failing.populated_bytes, present_at_once + present_piece);
}

TEST_F(AccessCache, AnotherBufferIsPopulatedAgain)
{
    load(present_piece);
    fetch(0, 1, access_write);
    cnb_default_buffer_drop();
    load(present_piece);
    fetch(0, 1, access_write);
    EXPECT_EQ(failing.populated_pieces, 2);
    cnb_default_buffer_drop();
    vexa_global_access_cache_cleanup_idle(cache);
    load(present_piece);
    fetch(0, 1, access_write);
    EXPECT_EQ(failing.populated_pieces, 3);
}

TEST_F(AccessCache, UnsupportedCallIsTriedOnce)
{
    failing.advise_errno = EINVAL;
    load(4 * present_piece);
    testing::internal::CaptureStderr();
    unsigned char* bytes = fetch(0, 4 * present_piece, access_write);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_NE(bytes, nullptr);
    bytes[3 * present_piece] = 1;
    EXPECT_NE(fetch(0, present_piece, access_write), nullptr);
    EXPECT_EQ(failing.populated_pieces, 1);
}

TEST_F(AccessCache, InterruptedCallIsContinued)
{
    failing.advise_errno = EINTR;
    load(4 * present_piece);
    EXPECT_NE(fetch(0, 4 * present_piece, access_write), nullptr);
    EXPECT_EQ(failing.populated_pieces, 4);
}

} // namespace
