#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/file_operations.h"
#include "platform/standalone/base/kept_names.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

using platform::keep_names;
using platform::kept_name;
using platform::kept_places;

namespace {

uintptr_t address(const char* text)
{
    return reinterpret_cast<uintptr_t>(text);
}

// In a child: the address range exists once in a process.
int in_child(const std::function<void()>& work)
{
    return run_in_child([&] {
        work();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

TEST(KeptNames, NameThatIsNotKeptIsUsedAsItIs)
{
    const char* name = "name";
    EXPECT_EQ(kept_name(5, name), name);
}

TEST(KeptNames, EachFolderHasItsOwn)
{
    EXPECT_EQ(in_child([] {
                  const auto places = keep_names({{{5, 6}, {"one", "two"}}, {{7}, {"three"}}});
                  ASSERT_EQ(places.size(), 2U);
                  EXPECT_STREQ(kept_name(5, "two"), "two");
                  EXPECT_EQ(address(kept_name(5, "one")), places[0].first);
                  EXPECT_EQ(address(kept_name(6, "two")), places[0].last);
                  EXPECT_EQ(address(kept_name(7, "three")), places[1].first);
                  const char* foreign = "three";
                  EXPECT_EQ(kept_name(5, foreign), foreign);
                  const char* end = "wo";
                  EXPECT_EQ(kept_name(5, end), end);
              }),
              0);
}

TEST(KeptNames, AddressesAreMultiplesOfTheSlotAndBelowTheEnd)
{
    EXPECT_EQ(in_child([] {
                  const std::string longest(255, 'x');
                  for (const kept_places& places :
                       keep_names({{{5}, {"1", "22"}}, {{6}, {longest, "333"}}})) {
                      EXPECT_EQ(places.slot & (places.slot - 1), 0U);
                      EXPECT_EQ(places.first % places.slot, 0U);
                      EXPECT_EQ(places.last % places.slot, 0U);
                      EXPECT_EQ(places.last, places.first + places.slot);
                      EXPECT_LE(places.last + places.slot, platform::end_of_kept_names());
                  }
                  EXPECT_EQ(kept_name(6, longest.c_str()), longest);
                  EXPECT_LT(platform::end_of_kept_names(), address(longest.c_str()));
              }),
              0);
}

TEST(KeptNames, CopiesCannotBeWritten)
{
    EXPECT_EQ(in_child([] {
                  keep_names({{{5}, {"one"}}});
                  auto* place = const_cast<char*>(kept_name(5, "one"));
                  EXPECT_EQ(mprotect(place, 4096, PROT_READ | PROT_WRITE), -1);
                  const unique_fd memory(open("/proc/self/mem", O_RDWR | O_CLOEXEC));
                  EXPECT_EQ(pwrite(memory.get(), "X", 1, static_cast<off_t>(address(place))), -1);
                  EXPECT_STREQ(place, "one");
              }),
              0);
}

TEST(KeptNames, LaterNamesReplaceTheEarlierOnes)
{
    EXPECT_EQ(in_child([] {
                  keep_names({{{5}, {"one"}}});
                  keep_names({{{5}, {"two"}}});
                  const char* former = "one";
                  EXPECT_EQ(kept_name(5, former), former);
                  EXPECT_NE(address(kept_name(5, "two")), address("two"));
                  EXPECT_TRUE(keep_names({}).empty());
                  EXPECT_EQ(platform::end_of_kept_names(), 0U);
                  EXPECT_EQ(kept_name(5, former), former);
              }),
              0);
}

TEST(KeptNames, NothingIsKeptWhenThePlaceIsTaken)
{
    EXPECT_EQ(in_child([] {
                  void* taken = mmap(reinterpret_cast<void*>(0x100000), 4096, PROT_READ,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
                  ASSERT_NE(taken, MAP_FAILED);
                  EXPECT_TRUE(keep_names({{{5}, {"one"}}}).empty());
                  const char* name = "one";
                  EXPECT_EQ(kept_name(5, name), name);
              }),
              0);
}

TEST(KeptNames, FilesAreRemovedAndRenamedByThem)
{
    const temporary_folder folder;
    EXPECT_EQ(in_child([&] {
                  folder.write("one", "1");
                  keep_names({{{folder.fd()}, {"one", "two", "three"}}});
                  const platform::file_operations& files = platform::system_file_operations;
                  EXPECT_EQ(files.rename_at(folder.fd(), "one", "two"), 0);
                  EXPECT_EQ(files.rename_new_at(folder.fd(), "two", "three"), 0);
                  EXPECT_EQ(folder.read("three"), "1");
                  EXPECT_EQ(files.unlink_at(folder.fd(), "three"), 0);
                  EXPECT_TRUE(folder.names().empty());
              }),
              0);
}

} // namespace
