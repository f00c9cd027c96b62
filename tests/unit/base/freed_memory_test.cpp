#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "platform/standalone/base/freed_memory.h"

namespace {

// Free memory in the middle of the heap, which the C library does not give back by itself.
size_t free_bytes()
{
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
    return mallinfo2().fordblks;
#else
    return 0;
#endif
}

size_t resident_pages()
{
    size_t all = 0;
    size_t resident = 0;
    FILE* file = fopen("/proc/self/statm", "r");
    if (file == nullptr || fscanf(file, "%zu %zu", &all, &resident) != 2) {
        ADD_FAILURE() << "no /proc";
    }
    fclose(file);
    return resident;
}

// Frees 32 MiB of small pieces below one that stays.
std::unique_ptr<std::string> fill_and_free()
{
    constexpr size_t piece = 1000;
    constexpr size_t count = (size_t{32} << 20) / piece;
    std::vector<std::unique_ptr<std::string>> pieces(count);
    for (auto& each : pieces) {
        each = std::make_unique<std::string>(piece, 'x');
    }
    return std::move(pieces.back());
}

TEST(FreedMemory, IsGivenBackOnceASecondAfterItIsNoted)
{
    uint64_t now_us = 1'000'000'000;
    platform::give_freed_memory_back(now_us); // whatever was noted before
    const size_t before = resident_pages();
    const auto kept = fill_and_free();
    if (free_bytes() < size_t{16} << 20) {
        GTEST_SKIP() << "this C library keeps no freed memory";
    }
    platform::give_freed_memory_back(now_us += 2'000'000);
    EXPECT_GT(resident_pages(), before + 4096);
    platform::note_freed_memory();
    platform::give_freed_memory_back(now_us);
    EXPECT_LT(resident_pages(), before + 2048);
    const auto kept_again = fill_and_free();
    platform::note_freed_memory();
    platform::give_freed_memory_back(now_us + 999'999);
    EXPECT_GT(resident_pages(), before + 4096);
    platform::give_freed_memory_back(now_us + 1'000'000);
    EXPECT_LT(resident_pages(), before + 2048);
}

} // namespace
