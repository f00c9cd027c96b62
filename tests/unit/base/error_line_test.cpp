#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "tests/support/child_process.h"

namespace {

std::string printed(std::string_view what, std::string_view path, std::string_view reason)
{
    testing::internal::CaptureStderr();
    platform::error_line(what, path, reason);
    return testing::internal::GetCapturedStderr();
}

TEST(ErrorLine, NamesPathAndReason)
{
    EXPECT_EQ(printed("Cannot open file", "/a/b.png", "it is gone"),
              "Cannot open file '/a/b.png': it is gone\n");
}

TEST(ErrorLine, HostilePathStaysOnOneLineAndIsNoFormat)
{
    EXPECT_EQ(printed("Cannot open file", "a\n\x1B[2J%n%s\xFF", "no"),
              "Cannot open file 'a\\x0A\\x1B[2J%n%s\\xFF': no\n");
}

TEST(ErrorLine, ErrorNumberIsPrintedAsTheSystemsText)
{
    testing::internal::CaptureStderr();
    platform::error_line("Cannot open file", "x", ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Cannot open file 'x': No such file or directory\n");
}

TEST(ErrorLine, FailedWriteIsIgnoredAndKeepsErrno)
{
    EXPECT_EQ(run_in_child([] {
                  const unique_fd full(platform::open_file("/dev/full", O_WRONLY));
                  dup2(full.get(), STDERR_FILENO);
                  errno = EBUSY;
                  platform::error_line("a", "b", "c");
                  return errno == EBUSY ? 0 : 1;
              }),
              0);
}

} // namespace
