#include <cerrno>

#include <gtest/gtest.h>

#include "platform/standalone/base/error_line.h"

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

TEST(ErrorLine, HostilePathStaysOneLineAndNoFormat)
{
    EXPECT_EQ(printed("Cannot open file", "a\n\x1B[2J%n%s\xFF", "no"),
              "Cannot open file 'a\\x0A\\x1B[2J%n%s\\xFF': no\n");
}

TEST(ErrorLine, ErrorNumberGivesTheSystemsText)
{
    testing::internal::CaptureStderr();
    platform::error_line("Cannot open file", "x", ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Cannot open file 'x': No such file or directory\n");
}

TEST(ErrorLine, KeepsErrno)
{
    errno = EBUSY;
    printed("a", "b", "c");
    EXPECT_EQ(errno, EBUSY);
}

} // namespace
