#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/cnb.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/small_file.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::write_file;
using platform::lift_memory_bound;
using platform::memory_beside_buffers;
using platform::renew_memory_bound;
using platform::start_memory_bound;

namespace {

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint64_t total = 1024 * mebibyte; // of the simulated machine
constexpr uint64_t reserve = total / 16;

uint64_t soft_limit()
{
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
    return limit.rlim_cur;
}

uint64_t mapped()
{
    return platform::leading_number(platform::read_small_file("/proc/self/statm"), 0) *
           static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// malloc, as the codecs call it, hidden from the optimiser.
bool can_allocate(uint64_t bytes)
{
    void* volatile memory = malloc(bytes);
    free(memory);
    return memory != nullptr;
}

bool has_room_for_objects(uint64_t bytes)
{
    void* volatile memory = operator new(bytes, std::nothrow);
    operator delete(memory);
    return memory != nullptr;
}

class MemoryBound : public cnb_test::cnb {
protected:
    MemoryBound()
    {
        set_available(600 * mebibyte);
        platform::the_machine.root = machine.path();
    }

    void set_available(uint64_t bytes) const
    {
        write_file(machine.path("proc/meminfo"),
                   "MemTotal: " + std::to_string(total / 1024) +
                       " kB\nMemAvailable: " + std::to_string(bytes / 1024) + " kB\n");
    }

    // Runs `work` in a child, since it changes limits of the process.
    static void expect_in_child(const std::function<void()>& work)
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a sanitizer needs terabytes of address space";
        }
        EXPECT_EQ(run_in_child([&] {
                      work();
                      return testing::Test::HasFailure() ? 1 : 0;
                  }),
                  0);
    }

    // Expects that the limit exceeds what is mapped by this many bytes.
    static void expect_room(uint64_t bytes)
    {
        const uint64_t limit = mapped() + bytes;
        EXPECT_LE(soft_limit(), limit + mebibyte);
        EXPECT_GE(soft_limit() + mebibyte, limit);
    }

    temporary_folder machine;
};

TEST_F(MemoryBound, CodecsMayHaveHalfOfTheReserveAndTheWorkersObjectsAQuarter)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    EXPECT_EQ(memory_beside_buffers().codecs, 600 * mebibyte - reserve / 2);
    EXPECT_EQ(memory_beside_buffers().own_objects, reserve / 4);
    EXPECT_EQ(platform::memory_for_buffers(), 600 * mebibyte - reserve);
    set_available(reserve / 2);
    EXPECT_EQ(memory_beside_buffers().codecs, 0U);
    EXPECT_EQ(memory_beside_buffers().own_objects, reserve / 4);
    set_available(0);
    EXPECT_EQ(memory_beside_buffers().codecs, 0U);
}

TEST_F(MemoryBound, TightestGroupCounts)
{
    write_file(machine.path("proc/self/cgroup"), "4:memory:/outer/inner\n");
    write_file(machine.path("proc/self/mountinfo"),
               "4 3 0:3 / /groups rw - cgroup cgroup rw,memory\n");
    write_file(machine.path("groups/outer/memory.limit_in_bytes"), std::to_string(64 * mebibyte));
    write_file(machine.path("groups/outer/memory.usage_in_bytes"), std::to_string(10 * mebibyte));
    write_file(machine.path("groups/outer/inner/memory.limit_in_bytes"), std::to_string(total / 2));
    write_file(machine.path("groups/outer/inner/memory.usage_in_bytes"), "0");
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    // 54, less half of a sixteenth of 64.
    EXPECT_EQ(memory_beside_buffers().codecs, 52 * mebibyte);
    EXPECT_EQ(memory_beside_buffers().own_objects, mebibyte);
}

TEST_F(MemoryBound, NoMoreIsMappedThanMemoryHasRoomFor)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([] {
        start_memory_bound();
        renew_memory_bound();
        expect_room(600 * mebibyte - reserve / 2);
        EXPECT_TRUE(can_allocate(500 * mebibyte));
        EXPECT_FALSE(can_allocate(600 * mebibyte));
    });
}

TEST_F(MemoryBound, HalfIsLeftForTheFrameBufferAtFirst)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([] {
        start_memory_bound();
        expect_room((600 * mebibyte - reserve / 2) / 2);
    });
}

TEST_F(MemoryBound, RoomIsMeasuredAgain)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([this] {
        start_memory_bound();
        set_available(200 * mebibyte);
        renew_memory_bound();
        EXPECT_FALSE(can_allocate(200 * mebibyte));
        EXPECT_TRUE(can_allocate(150 * mebibyte));
        set_available(400 * mebibyte);
        renew_memory_bound();
        EXPECT_TRUE(can_allocate(300 * mebibyte));
    });
}

TEST_F(MemoryBound, ExistingMappingsCountInAddition)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([] {
        void* taken =
            mmap(nullptr, total, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(taken, MAP_FAILED);
        start_memory_bound();
        renew_memory_bound();
        EXPECT_TRUE(can_allocate(500 * mebibyte));
        EXPECT_FALSE(can_allocate(600 * mebibyte));
    });
}

TEST_F(MemoryBound, InitialLimitIsNeverExceeded)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([] {
        const uint64_t ceiling = mapped() + 100 * mebibyte;
        const rlimit limit = {ceiling, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
        start_memory_bound();
        EXPECT_EQ(soft_limit(), ceiling);
        lift_memory_bound();
        EXPECT_EQ(soft_limit(), ceiling);
        EXPECT_FALSE(has_room_for_objects(200 * mebibyte));
        EXPECT_EQ(soft_limit(), ceiling);
    });
}

TEST_F(MemoryBound, FrameBufferIsReservedUnderTheInitialLimit)
{
    platform::cnb_set_domain("default", total);
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([this] {
        set_available(10 * mebibyte);
        const uint64_t before = soft_limit();
        start_memory_bound();
        set_available(200 * mebibyte); // other processes have ended
        cnb_static_alloc = 1;
        cnb_total = 100 * mebibyte;
        ASSERT_EQ(cnb_default_buffer_load(), 0);
        cnb_allocation allocation = {};
        EXPECT_TRUE(cnb_malloc(&allocation, cnb_total, "Image"));
        expect_room(200 * mebibyte - reserve / 2);
        lift_memory_bound();
        EXPECT_EQ(soft_limit(), before);
    });
}

TEST_F(MemoryBound, WorkersOwnObjectsHaveAShareBesideTheCodecs)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([this] {
        set_available(0);
        start_memory_bound();
        EXPECT_FALSE(can_allocate(4 * mebibyte));
        EXPECT_TRUE(has_room_for_objects(4 * mebibyte));
        std::vector<std::string> texts;
        for (int i = 0; i < 20'000; ++i) {
            texts.emplace_back(100, 'x');
        }
        EXPECT_EQ(texts.back().size(), 100U);
        EXPECT_FALSE(can_allocate(reserve));
        EXPECT_FALSE(has_room_for_objects(reserve));
    });
}

TEST_F(MemoryBound, RequestThatIsTooLargeTakesNothingFromTheShare)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([this] {
        set_available(0);
        start_memory_bound();
        const uint64_t before = soft_limit();
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(has_room_for_objects(reserve));
            EXPECT_LE(soft_limit(), before + mebibyte);
        }
        EXPECT_THROW(std::vector<char>(reserve, 'x'), std::bad_alloc);
        EXPECT_TRUE(has_room_for_objects(reserve / 8));
    });
}

TEST_F(MemoryBound, NothingHappensBeforeTheStart)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    expect_in_child([this] {
        set_available(0);
        const uint64_t before = soft_limit();
        lift_memory_bound();
        renew_memory_bound();
        EXPECT_EQ(soft_limit(), before);
        EXPECT_EQ(std::get_new_handler(), nullptr);
    });
}

TEST_F(MemoryBound, WithoutADomainNothingIsBound)
{
    expect_in_child([] {
        const uint64_t before = soft_limit();
        start_memory_bound();
        EXPECT_EQ(soft_limit(), before);
    });
}

} // namespace
