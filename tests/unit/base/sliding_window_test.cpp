#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/io.h"
#include "platform/standalone/base/fd_io.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace {

using window_owner = std::unique_ptr<sliding_window_v4, sliding_window_v4* (*)(sliding_window_v4*)>;

window_owner new_window(size_t size, int fd)
{
    return {sliding_window_v4_create_mmap(size, fd), sliding_window_v4_destroy};
}

std::string_view in_view(const window_owner& window)
{
    return {reinterpret_cast<const char*>(window->buffer),
            static_cast<size_t>(window->end - window->buffer)};
}

class SlidingWindow : public testing::Test {
protected:
    temporary_folder folder;
    unique_fd fd{platform::open_file(folder.write("f", "0123456789").c_str(), O_RDONLY)};
};

TEST_F(SlidingWindow, IsEmptyBeforeItsFirstRead)
{
    const window_owner window = new_window(4, fd.get());
    EXPECT_EQ(window->buffer, nullptr);
    EXPECT_EQ(window->end, nullptr);
    EXPECT_EQ(window->capacity, 4U);
    EXPECT_EQ(window->fd, fd.get());
}

TEST_F(SlidingWindow, ShowsTheRequestedBytes)
{
    const window_owner window = new_window(4, fd.get());
    EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 2, 3), 0);
    EXPECT_EQ(in_view(window), "234");
}

TEST_F(SlidingWindow, ShowsNoMoreThanItsCapacity)
{
    const window_owner window = new_window(4, fd.get());
    EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 10), 0);
    EXPECT_EQ(in_view(window), "0123");
}

TEST_F(SlidingWindow, EndsWithTheFile)
{
    const window_owner window = new_window(4096, fd.get());
    EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 7, 4096), 0);
    EXPECT_EQ(in_view(window), "789");
}

TEST_F(SlidingWindow, KeepsTheDescriptorOpenAndItsPosition)
{
    {
        const window_owner window = new_window(4, fd.get());
        EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 2, 3), 0);
    }
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 0);
}

TEST_F(SlidingWindow, ReadOfNothingEmptiesIt)
{
    const window_owner window = new_window(4, fd.get());
    for (const uint64_t offset : {UINT64_C(10), UINT64_MAX - 1, UINT64_MAX, UINT64_C(1) << 63}) {
        EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 4), 0);
        EXPECT_EQ(sliding_window_v4_mmap_lazy_lseek(window.get(), offset, 4), 0) << offset;
        EXPECT_EQ(window->buffer, window->end);
    }
    EXPECT_EQ(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 0), 0);
}

TEST_F(SlidingWindow, UnreadableDescriptorShowsNothing)
{
    const window_owner window = new_window(4, -1);
    EXPECT_EQ(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 4), 0);
}

TEST_F(SlidingWindow, BytesInViewAreAPrivateCopy)
{
    const window_owner window = new_window(16, fd.get());
    EXPECT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 10), 0);
    folder.write("f", "XXXXXXXXXX");
    EXPECT_EQ(in_view(window), "0123456789");
    ASSERT_EQ(truncate(folder.path("f").c_str(), 0), 0);
    EXPECT_EQ(in_view(window), "0123456789");
}

TEST_F(SlidingWindow, MoreThanTheMachineHasIsRefused)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer ends the program instead of refusing such a request";
#endif
    EXPECT_EQ(sliding_window_v4_create_mmap(SIZE_MAX / 2, fd.get()), nullptr);
}

TEST_F(SlidingWindow, DestroyAcceptsAndReturnsNull)
{
    EXPECT_EQ(sliding_window_v4_destroy(nullptr), nullptr);
    EXPECT_EQ(sliding_window_v4_destroy(sliding_window_v4_create_mmap(4, fd.get())), nullptr);
}

// A mapping in place of the window would end this test with SIGBUS.
TEST_F(SlidingWindow, FileTruncatedRepeatedlyIsReadSafely)
{
    constexpr int rounds = 10000;
    constexpr size_t full = 128 << 10;
    const std::string path = folder.write("cut", std::string(full, 'x'));
    child_process cutter([&] {
        for (;;) {
            if (truncate(path.c_str(), 100) != 0 || truncate(path.c_str(), full) != 0) {
                return 1;
            }
        }
        return 0;
    });
    const unique_fd cut(platform::open_file(path.c_str(), O_RDONLY));
    const window_owner window = new_window(4 << 20, cut.get());
    int cut_rounds = 0;
    int full_rounds = 0;
    // Runs until both states have occurred, once the truncating thread runs.
    while (cut_rounds + full_rounds < rounds || cut_rounds == 0 || full_rounds == 0) {
        ASSERT_NE(sliding_window_v4_mmap_lazy_lseek(window.get(), 0, 4 << 20), 0);
        const std::string_view bytes = in_view(window);
        ASSERT_GE(bytes.size(), 100U);
        ASSERT_LE(bytes.size(), full);
        ASSERT_EQ(bytes[0], 'x');
        ASSERT_TRUE(bytes.back() == 'x' || bytes.back() == '\0');
        ++(bytes.size() < full ? cut_rounds : full_rounds);
    }
}

} // namespace
