// All restrictions together, and each of them where the system refuses another.
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <linux/landlock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "platform/confinement.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "platform/start_up.h"
#include "tests/support/child_process.h"
#include "tests/support/item_fixture.h"
#include "tests/support/refused_calls.h"

namespace {

constexpr size_t far_too_much = size_t{1} << 46;

bool inet_sockets_are_refused()
{
    const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return !fd && errno == ENOSYS;
}

// The value after `key` in /proc/self/status.
std::string kernel_value(const std::string& key)
{
    std::ifstream lines("/proc/self/status");
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            return line.substr(line.find_first_not_of(" \t", key.size()));
        }
    }
    return "";
}

bool has_no_new_privileges()
{
    return kernel_value("NoNewPrivs:") == "1";
}

bool address_space_is_limited()
{
    void* taken =
        mmap(nullptr, far_too_much, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (taken != MAP_FAILED) {
        munmap(taken, far_too_much);
    }
    return taken == MAP_FAILED && errno == ENOMEM;
}

bool foreign_files_are_refused()
{
    const unique_fd fd(open("/etc/passwd", O_RDONLY | O_CLOEXEC));
    return !fd && errno == EACCES;
}

// Call this before the process is confined.
bool kernel_has_file_rules()
{
    return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) >= 1;
}

class Confinement : public item_test::ItemFixture {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "with a sanitizer only new privileges are given up";
        }
        name_picture();
        ASSERT_EQ(take({"--file", vexa_file}), 0);
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        ASSERT_EQ(vexa_join_cnb_domain(), 0);
    }

    const bool file_rules = kernel_has_file_rules();

    // Runs `work` in a child after confine_process(), with the calls in `refused` failing, and
    // returns its exit status; a failed expectation gives status 1.
    static int confined(std::initializer_list<const char*> refused,
                        const std::function<void()>& work)
    {
        return run_in_child([&] {
            EXPECT_TRUE(refused.size() == 0 || refuse_calls(refused));
            EXPECT_EQ(confine_process(), 0);
            work();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
};

TEST_F(Confinement, AppliesAllRestrictionsSilently)
{
    int status = -1;
    const std::string printed = messages([&] {
        status = confined({}, [this] {
            EXPECT_TRUE(has_no_new_privileges());
            EXPECT_TRUE(address_space_is_limited());
            EXPECT_TRUE(inet_sockets_are_refused());
            EXPECT_EQ(foreign_files_are_refused(), file_rules);
        });
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(printed, "");
}

TEST_F(Confinement, KeepsThePictureAndItsMetadataWorking)
{
    EXPECT_EQ(confined({},
                       [] {
                           const unique_fd picture(
                               metadata_v4_context_get_file_handle(vexa_meta, 0));
                           EXPECT_TRUE(picture);
                           EXPECT_EQ(metadata_v4_metadata_context_write_metadata_to_file(
                                         vexa_metadata, vexa_meta, 0, nullptr),
                                     0);
                       }),
              0);
}

TEST_F(Confinement, LogIsStillRotated)
{
    EXPECT_EQ(run_in_child([] {
                  EXPECT_EQ(vexa_redirect_stderr_to_logfile(), 0);
                  confine_process();
                  const std::string line(size_t{1} << 20, 'x');
                  for (int lines = 0; lines < 9; ++lines) {
                      fprintf(stderr, "%s\n", line.c_str());
                  }
                  return 0;
              }),
              0);
    struct stat log = {};
    EXPECT_EQ(stat((std::string(vexa_file_metadir) + "/log.old").c_str(), &log), 0);
}

TEST_F(Confinement, AddressSpaceIsLimitedWhenTheOthersAreRefused)
{
    EXPECT_EQ(
        confined({no_new_privileges_call, set_seccomp_call, "seccomp", "landlock_create_ruleset"},
                 [] {
                     EXPECT_TRUE(address_space_is_limited());
                     EXPECT_FALSE(inet_sockets_are_refused());
                     EXPECT_FALSE(foreign_files_are_refused());
                 }),
        0);
}

TEST_F(Confinement, FilesAreRestrictedWhenTheOthersAreRefused)
{
    EXPECT_EQ(
        confined({no_new_privileges_call, set_seccomp_call, "seccomp", "prlimit64", "setrlimit"},
                 [this] {
                     EXPECT_FALSE(address_space_is_limited());
                     EXPECT_FALSE(inet_sockets_are_refused());
                     EXPECT_EQ(foreign_files_are_refused(), file_rules);
                 }),
        0);
}

TEST_F(Confinement, SystemCallsAreRestrictedWhenTheOthersAreRefused)
{
    for (const char* call :
         {"landlock_create_ruleset", "landlock_add_rule", "landlock_restrict_self"}) {
        EXPECT_EQ(confined({no_new_privileges_call, "prlimit64", "setrlimit", call},
                           [] {
                               EXPECT_FALSE(address_space_is_limited());
                               EXPECT_TRUE(inet_sockets_are_refused());
                               EXPECT_FALSE(foreign_files_are_refused());
                           }),
                  0)
            << call;
    }
}

TEST_F(Confinement, ContinuesSilentlyWhenEverythingIsRefused)
{
    int status = -1;
    const std::string printed = messages([&] {
        status = confined({no_new_privileges_call, set_seccomp_call, "seccomp", "prlimit64",
                           "setrlimit", "landlock_create_ruleset"},
                          [] {
                              EXPECT_FALSE(address_space_is_limited());
                              EXPECT_FALSE(inet_sockets_are_refused());
                              EXPECT_FALSE(foreign_files_are_refused());
                          });
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(printed, "");
}

TEST(ConfinementWithoutAnItem, StillGivesUpPrivilegesAndCalls)
{
    EXPECT_EQ(run_in_child([] {
                  EXPECT_EQ(confine_process(), 0);
                  EXPECT_TRUE(has_no_new_privileges());
                  EXPECT_EQ(inet_sockets_are_refused(), !platform::sanitized_build);
                  EXPECT_FALSE(foreign_files_are_refused());
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

} // namespace
