#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/standalone/report/host_channel.h"
#include "tests/support/full_disk.h"
#include "tests/support/item_fixture.h"
#include "tests/support/open_descriptors.h"

namespace {

using item_test::fill;
using item_test::lines_of;
using item_test::make_pipe;
using item_test::pipe_pair;
using item_test::read_waiting;

class HostChannel : public item_test::ItemFixture {
protected:
    // What the host receives, without the filler.
    static std::string received(int fd)
    {
        const std::string text = read_waiting(fd);
        return text.substr(std::min(text.find_first_not_of('.'), text.size()));
    }

    platform::host_channel channel;
};

TEST_F(HostChannel, LinesHaveTheDocumentedForm)
{
    const pipe_pair pipe = make_pipe();
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    channel.report_progress(40, "Decoding PNG", 0);
    channel.report_progress(100, "", 0);
    channel.report_progress(-1, "ADAM7 interlace not supported [pal]", 0);
    channel.report_ready(-1, "Provisional image ready", 0);
    channel.report_ready(1, "Ready to serve data", 0);
    EXPECT_EQ(read_waiting(pipe.reader.get()),
              "{\"percent\": 40, \"text\": \"Decoding PNG\"}\n"
              "{\"percent\": 100, \"text\": \"\"}\n"
              "{\"percent\": -1, \"text\": \"ADAM7 interlace not supported [pal]\"}\n"
              "{\"ready\": -1, \"text\": \"Provisional image ready\"}\n"
              "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
}

TEST_F(HostChannel, DescriptorsThatCannotBeWrittenAreRefused)
{
    const pipe_pair pipe = make_pipe();
    EXPECT_FALSE(channel.open(pipe.reader.get()));
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(channel.open(-1));
    EXPECT_FALSE(channel.open(1 << 20));
    const unique_fd path(open("/", O_PATH | O_CLOEXEC));
    EXPECT_FALSE(channel.open(path.get()));
    EXPECT_FALSE(channel.is_open());
}

TEST_F(HostChannel, OwnsADuplicateThatIsClosedOnExec)
{
    pipe_pair pipe = make_pipe();
    fcntl(pipe.writer.get(), F_SETFD, 0);
    const size_t before = open_descriptors();
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    EXPECT_EQ(open_descriptors(), before + 1);
    EXPECT_NE(fcntl(pipe.writer.get(), F_GETFD) & FD_CLOEXEC, 0);
    pipe.writer.reset();
    channel.report_progress(1, "a", 0);
    EXPECT_EQ(read_waiting(pipe.reader.get()), "{\"percent\": 1, \"text\": \"a\"}\n");
    channel.close();
    char byte = 0;
    EXPECT_EQ(read(pipe.reader.get(), &byte, 1), 0); // end of file: no writer is left
}

TEST_F(HostChannel, FlagsOfTheHostsDescriptionAreUnchanged)
{
    const pipe_pair pipe = make_pipe();
    const int before = fcntl(pipe.writer.get(), F_GETFL);
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    channel.report_progress(1, "a", 0);
    EXPECT_EQ(fcntl(pipe.writer.get(), F_GETFL), before);
}

TEST_F(HostChannel, SlowHostGetsTheLatestLineOfEachKindLater)
{
    const pipe_pair pipe = make_pipe();
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    fill(pipe);
    for (int percent = 0; percent < 100; ++percent) {
        channel.report_progress(percent, "Decoding PNG", 0);
    }
    channel.report_progress(-1, "first refusal", 0);
    channel.report_progress(-1, "second refusal", 0);
    channel.report_ready(-1, "Provisional image ready", 0);
    channel.report_progress(100, "", 0);
    channel.report_ready(1, "Ready to serve data", 0);
    EXPECT_TRUE(channel.has_waiting());
    EXPECT_EQ(received(pipe.reader.get()), "");
    channel.flush(0);
    EXPECT_EQ(received(pipe.reader.get()),
              "{\"percent\": -1, \"text\": \"second refusal\"}\n"
              "{\"ready\": -1, \"text\": \"Provisional image ready\"}\n"
              "{\"percent\": 100, \"text\": \"\"}\n"
              "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
    EXPECT_FALSE(channel.has_waiting());
}

TEST_F(HostChannel, ReadinessSurvivesAnyNumberOfOtherLines)
{
    const pipe_pair pipe = make_pipe();
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    fill(pipe);
    channel.report_ready(1, "Ready to serve data", 0);
    for (int i = 0; i < 10'000; ++i) {
        channel.report_progress(i % 2 == 0 ? -1 : i % 100, std::to_string(i), 0);
    }
    read_waiting(pipe.reader.get());
    channel.flush(0);
    const std::vector<std::string> lines = lines_of(received(pipe.reader.get()));
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "{\"ready\": 1, \"text\": \"Ready to serve data\"}");
}

TEST_F(HostChannel, HostThatHungUpClosesTheChannel)
{
    pipe_pair pipe = make_pipe();
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    pipe.reader.reset();
    channel.report_progress(1, "a", 0);
    EXPECT_FALSE(channel.is_open());
    channel.report_ready(1, "Ready to serve data", 0);
    channel.flush(0);
    EXPECT_FALSE(channel.has_waiting());
}

TEST_F(HostChannel, LongestTextIsOneCompleteWrite)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0); // keeps writes separate
    ASSERT_TRUE(channel.open(ends[1]));
    channel.report_progress(100, std::string(512, '"'), 0);
    char line[PIPE_BUF + 1] = {};
    const ssize_t size = read(ends[0], line, sizeof line);
    ASSERT_GT(size, 1024);
    ASSERT_LE(size, PIPE_BUF);
    EXPECT_EQ(line[size - 1], '\n');
    std::string error;
    EXPECT_EQ(json11::Json::parse(line, error)["text"].string_value(), std::string(512, '"'));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(HostChannel, PartlyWrittenLineIsCompletedFirst)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_TRUE(channel.open(ends[1]));
    const std::string text(512, 't');
    for (int i = 0; i < 100'000 && !channel.has_waiting(); ++i) {
        channel.report_progress(i % 100, text, 0);
    }
    ASSERT_TRUE(channel.has_waiting());
    channel.report_progress(7, "last", 0);
    channel.report_ready(1, "Ready to serve data", 0);
    std::string all;
    for (std::string piece = read_waiting(ends[0]); !piece.empty(); piece = read_waiting(ends[0])) {
        all += piece;
        channel.flush(0);
    }
    for (const std::string& line : lines_of(all)) {
        std::string error;
        json11::Json::parse(line, error);
        ASSERT_EQ(error, "") << line;
    }
    EXPECT_TRUE(all.ends_with("{\"percent\": 7, \"text\": \"last\"}\n"
                              "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n"));
    close(ends[0]);
    close(ends[1]);
}

// --- a file that is temporarily not writable ----------------------------------------------------

constexpr uint64_t second_us = 1'000'000;

class HostChannelToAFile : public HostChannel {
protected:
    HostChannelToAFile()
    {
        file_ =
            unique_fd(open(folder.path("status").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        EXPECT_TRUE(channel.open(file_.get()));
    }

    std::string written() const { return folder.read("status"); }

    full_disk disk;

private:
    unique_fd file_;
};

TEST_F(HostChannelToAFile, LatestLineOfEachKindIsWrittenOnceThereIsSpace)
{
    ASSERT_TRUE(disk.set_room(0));
    for (int percent = 0; percent < 100; ++percent) {
        channel.report_progress(percent, "Decoding PNG", 0);
    }
    channel.report_ready(-1, "Provisional image ready", 0);
    channel.report_ready(1, "Ready to serve data", 0);
    EXPECT_TRUE(channel.is_open());
    EXPECT_EQ(written(), "");
    ASSERT_TRUE(disk.make_room());
    channel.flush(second_us);
    EXPECT_EQ(written(), "{\"percent\": 99, \"text\": \"Decoding PNG\"}\n"
                         "{\"ready\": -1, \"text\": \"Provisional image ready\"}\n"
                         "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
    EXPECT_FALSE(channel.has_waiting());
}

TEST_F(HostChannelToAFile, ChangeIsWrittenAtOnce)
{
    ASSERT_TRUE(disk.set_room(0));
    channel.report_ready(-1, "a", 5);
    ASSERT_TRUE(disk.make_room());
    channel.report_progress(1, "b", 5);
    EXPECT_EQ(written(), "{\"ready\": -1, \"text\": \"a\"}\n{\"percent\": 1, \"text\": \"b\"}\n");
}

TEST_F(HostChannelToAFile, WithoutAChangeItRetriesOnceASecond)
{
    ASSERT_TRUE(disk.set_room(0));
    channel.report_progress(1, "a", 7);
    ASSERT_TRUE(disk.make_room());
    channel.flush(7);
    channel.flush(7 + second_us - 1);
    EXPECT_EQ(written(), "");
    ASSERT_TRUE(disk.set_room(0));
    channel.flush(7 + second_us); // fails and starts the next second
    ASSERT_TRUE(disk.make_room());
    channel.flush(7 + 2 * second_us - 1);
    EXPECT_EQ(written(), "");
    channel.flush(7 + 2 * second_us);
    EXPECT_EQ(written(), "{\"percent\": 1, \"text\": \"a\"}\n");
}

TEST_F(HostChannelToAFile, PartlyWrittenLineIsCompletedFirst)
{
    ASSERT_TRUE(disk.set_room(10));
    channel.report_progress(1, "a", 0);
    channel.report_progress(2, "b", 0);
    channel.report_progress(3, "c", 0);
    EXPECT_EQ(written(), "{\"percent\"");
    ASSERT_TRUE(disk.make_room());
    channel.flush(second_us);
    EXPECT_EQ(written(), "{\"percent\": 1, \"text\": \"a\"}\n{\"percent\": 3, \"text\": \"c\"}\n");
}

TEST_F(HostChannelToAFile, ClosingTriesOnceMore)
{
    ASSERT_TRUE(disk.set_room(0));
    channel.report_ready(1, "a", 0);
    ASSERT_TRUE(disk.make_room());
    channel.finish();
    EXPECT_EQ(written(), "{\"ready\": 1, \"text\": \"a\"}\n");
    EXPECT_FALSE(channel.is_open());
}

TEST_F(HostChannel, FullDeviceDoesNotCloseTheChannel)
{
    const unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(channel.open(full.get()));
    channel.report_progress(1, "a", 0);
    channel.flush(second_us);
    EXPECT_TRUE(channel.is_open());
    EXPECT_TRUE(channel.has_waiting());
    channel.finish();
    EXPECT_FALSE(channel.is_open());
}

TEST_F(HostChannel, ClosedChannelIgnoresEverything)
{
    channel.report_progress(1, "a", 0);
    channel.report_ready(1, "b", 0);
    channel.flush(0);
    channel.close();
    EXPECT_FALSE(channel.has_waiting());
}

TEST_F(HostChannel, DescriptorIsNeverAStandardDescriptor)
{
    const pipe_pair pipe = make_pipe();
    const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    ASSERT_TRUE(channel.open(pipe.writer.get()));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    if (kept >= 0) {
        dup2(kept, STDIN_FILENO);
        close(kept);
    }
}

} // namespace
