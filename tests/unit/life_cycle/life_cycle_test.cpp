#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/serving.h"
#include "platform/settings.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/life_cycle.h"
#include "platform/start_up.h"
#include "platform/status.h"
#include "tests/support/child_process.h"
#include "tests/support/item_fixture.h"
#include "tests/support/open_descriptors.h"

namespace {

class LifeCycle : public item_test::ItemFixture {};

bool is_null_device(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

// --- standard descriptors -----------------------------------------------------------------------

TEST_F(LifeCycle, MissingStandardDescriptorsBecomeTheNullDevice)
{
    for (int missing = 1; missing < 8; ++missing) {
        EXPECT_EQ(run_in_child([&] {
                      for (int fd = 0; fd < 3; ++fd) {
                          if ((missing >> fd & 1) != 0) {
                              close(fd);
                          } else {
                              dup2(folder.fd(), fd);
                          }
                      }
                      open_missing_standard_descriptors();
                      for (int fd = 0; fd < 3; ++fd) {
                          if (is_null_device(fd) != ((missing >> fd & 1) != 0)) {
                              return 1;
                          }
                      }
                      // The picture gets another descriptor.
                      return open("/", O_RDONLY | O_CLOEXEC) >= 3 ? 0 : 2;
                  }),
                  0)
            << missing;
    }
}

TEST_F(LifeCycle, OpenStandardDescriptorsAreUnchanged)
{
    const size_t before = open_descriptors();
    open_missing_standard_descriptors();
    EXPECT_EQ(open_descriptors(), before);
}

// --- the domain ---------------------------------------------------------------------------------

TEST_F(LifeCycle, DomainFromTheSwitchesIsJoined)
{
    ASSERT_EQ(take({"--domain", "stage", "--domain-limit", "64M"}), 0);
    ASSERT_EQ(vexa_join_cnb_domain(), 0);
    EXPECT_STREQ(platform::cnb_view_domain().name, "stage");
    EXPECT_EQ(platform::cnb_view_domain().limit, uint64_t{64} << 20);
    vexa_free_all();
    EXPECT_EQ(platform::cnb_view_domain().limit, 0U);
}

TEST_F(LifeCycle, DomainThatCannotBeJoinedIsReported)
{
    rmdir(folder.path("run").c_str());
    folder.write("run", "a file");
    const std::string seen = messages([] { EXPECT_NE(vexa_join_cnb_domain(), 0); });
    EXPECT_EQ(item_test::lines_of(seen).size(), 1U);
    EXPECT_NE(seen.find(folder.path("run")), std::string::npos) << seen;
}

// --- housekeeping -------------------------------------------------------------------------------

TEST_F(LifeCycle, HousekeepingFlushesLinesToASlowHost)
{
    const item_test::pipe_pair pipe = item_test::make_pipe();
    ASSERT_EQ(take({"--status-fd", std::to_string(pipe.writer.get())}), 0);
    item_test::fill(pipe);
    vexa_ready_write(1, "Ready to serve data");
    item_test::read_waiting(pipe.reader.get());
    vexa_idle_housekeeping();
    EXPECT_EQ(item_test::read_waiting(pipe.reader.get()),
              "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
}

TEST_F(LifeCycle, HousekeepingWritesTheChildsNumberIntoTheLock)
{
    name_picture();
    vexa_set_string(&vexa_sock, folder.path("s.sock").c_str());
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_EQ(run_in_child([&] {
                  vexa_idle_housekeeping();
                  return folder.read("s.sock.lock") == std::to_string(getpid()) + "\n" ? 0 : 1;
              }),
              0);
}

TEST_F(LifeCycle, HousekeepingWithoutAnItemDoesNothing)
{
    const size_t descriptors = open_descriptors();
    vexa_idle_housekeeping();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(folder.names() == std::vector<std::string>{"run"});
}

// --- the end ------------------------------------------------------------------------------------

TEST_F(LifeCycle, FreeingNothingWorks)
{
    vexa_free_all();
    vexa_free_all();
    EXPECT_EQ(vexa_file, nullptr);
}

TEST_F(LifeCycle, FreeingReleasesEverythingAndMayRunTwice)
{
    const size_t before = open_descriptors();
    FILE* const stream = stderr;
    const item_test::pipe_pair pipe = item_test::make_pipe();
    const std::string picture = folder.write("p.png", "sixteen bytes ..");
    messages([&] {
        ASSERT_EQ(take({"--file", picture, "--sock", folder.path("s.sock"), "--status-fd",
                        std::to_string(pipe.writer.get())}),
                  0);
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        ASSERT_EQ(vexa_join_cnb_domain(), 0);
        ASSERT_EQ(vexa_redirect_stderr_to_logfile(), 0);
        vexa_ready_write(1, "Ready to serve data");
        vexa_free_all();
        vexa_free_all();
    });
    EXPECT_EQ(open_descriptors(), before + 2); // of the pipe
    EXPECT_EQ(stderr, stream);
    EXPECT_FALSE(folder.has("s.sock.lock"));
    EXPECT_EQ(vexa_file, nullptr);
    EXPECT_EQ(vexa_sock, nullptr);
    EXPECT_EQ(vexa_file_metadir, nullptr);
}

TEST_F(LifeCycle, ProcessThatEndsEarlyLeavesNoLock)
{
    name_picture();
    vexa_set_string(&vexa_sock, folder.path("s.sock").c_str());
    EXPECT_EXIT(
        {
            const bool derived = vexa_standard_to_derived_params() == 0;
            exit(derived && item_test::is_locked(folder.path("s.sock.lock")) ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

} // namespace
