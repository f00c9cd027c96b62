#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <pty.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/settings.h"
#include "platform/standalone/report/standard_error.h"
#include "platform/start_up.h"
#include "tests/support/full_disk.h"
#include "tests/support/item_fixture.h"

namespace {

using item_test::make_pipe;
using item_test::pipe_pair;
using item_test::read_waiting;
using item_test::replaced_stderr;

class StandardError : public item_test::ItemFixture {};

// A pseudo-terminal with `columns` columns.
struct terminal {
    explicit terminal(unsigned short columns)
    {
        winsize size = {};
        size.ws_col = columns;
        size.ws_row = 24;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
    }
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;
    ~terminal()
    {
        close(master);
        close(slave);
    }

    int master = -1;
    int slave = -1;
};

// --- messages -----------------------------------------------------------------------------------

TEST_F(StandardError, MessagesArriveUnchangedAndAtOnce)
{
    const pipe_pair pipe = make_pipe();
    const replaced_stderr replaced(pipe.writer.get());
    platform::guard_standard_error();
    platform::guard_standard_error();
    fprintf(stderr, "one %s", "two");
    EXPECT_EQ(read_waiting(pipe.reader.get()), "one two");
    fputs("three\n", stderr);
    fputc('4', stderr);
    EXPECT_EQ(read_waiting(pipe.reader.get()), "three\n4");
}

TEST_F(StandardError, OneMessageIsOneWrite)
{
    // A packet pipe keeps writes separate.
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    const replaced_stderr replaced(ends[1]);
    platform::guard_standard_error();
    fprintf(stderr, "a%d %s %5.2f\n", 1, "b", 2.5);
    char piece[256] = "";
    EXPECT_EQ(read(ends[0], piece, sizeof piece), 11);
    EXPECT_STREQ(piece, "a1 b  2.50\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(StandardError, ErrnoIsPreserved)
{
    platform::guard_standard_error();
    const unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const replaced_stderr replaced(full.get());
    errno = ENOTTY;
    fputs("x\n", stderr);
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(StandardError, ReaderThatHungUpIsIgnored)
{
    pipe_pair pipe = make_pipe();
    pipe.reader.reset();
    const replaced_stderr replaced(pipe.writer.get());
    platform::guard_standard_error();
    for (int i = 0; i < 1000; ++i) {
        fputs("nobody reads this\n", stderr);
    }
    EXPECT_EQ(ferror(stderr), 0);
}

TEST_F(StandardError, StoppedReaderIsWaitedForOnceAndTheLossIsReported)
{
    const pipe_pair pipe = make_pipe();
    const replaced_stderr replaced(pipe.writer.get());
    platform::guard_standard_error();
    item_test::fill(pipe);
    for (int i = 0; i < 1000; ++i) {
        fputs("ten bytes\n", stderr);
    }
    EXPECT_EQ(read_waiting(pipe.reader.get()).find("ten"), std::string::npos);
    fputs("heard again\n", stderr);
    EXPECT_EQ(read_waiting(pipe.reader.get()),
              "[10000 bytes of messages were not read and are lost]\nheard again\n");
}

TEST_F(StandardError, LossOnAFullDiskIsReportedOnceThereIsSpace)
{
    const full_disk disk;
    const unique_fd file(
        open(folder.path("messages").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600));
    {
        const replaced_stderr replaced(file.get());
        platform::guard_standard_error();
        disk.set_room(4);
        fputs("ten bytes\n", stderr);
        fputs("ten bytes\n", stderr);
        disk.make_room();
        fputs("after\n", stderr);
    }
    EXPECT_EQ(folder.read("messages"),
              "ten [16 bytes of messages could not be written and are lost]\nafter\n");
}

TEST_F(StandardError, LongMessageIsWrittenInPieces)
{
    const pipe_pair pipe = make_pipe();
    const replaced_stderr replaced(pipe.writer.get());
    platform::guard_standard_error();
    const std::string text(3 * PIPE_BUF + 5, 'm');
    fputs(text.c_str(), stderr);
    EXPECT_EQ(read_waiting(pipe.reader.get()), text);
}

TEST_F(StandardError, NonBlockingDescriptorDropsWhatDoesNotFit)
{
    const pipe_pair pipe = make_pipe();
    fcntl(pipe.writer.get(), F_SETFL, O_NONBLOCK);
    const replaced_stderr replaced(pipe.writer.get());
    platform::guard_standard_error();
    fputs("x\n", stderr);
    EXPECT_EQ(read_waiting(pipe.reader.get()), "x\n");
}

TEST_F(StandardError, StderrIsRestored)
{
    FILE* const before = stderr;
    platform::guard_standard_error();
    EXPECT_NE(stderr, before);
    platform::release_standard_error();
    EXPECT_EQ(stderr, before);
    platform::release_standard_error();
    EXPECT_EQ(stderr, before);
}

// --- the log ------------------------------------------------------------------------------------

TEST_F(StandardError, RedirectionSendsEverythingToTheLog)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    const std::string seen = messages([] {
        ASSERT_EQ(vexa_redirect_stderr_to_logfile(), 0);
        fputs("through stdio\n", stderr);
        ASSERT_EQ(write(STDERR_FILENO, "raw\n", 4), 4);
    });
    EXPECT_EQ(seen, "");
    const std::string log = folder.read("log");
    EXPECT_TRUE(log.starts_with("=== stillimage, process " + std::to_string(getpid()) + ", "));
    EXPECT_TRUE(log.ends_with(" ===\nthrough stdio\nraw\n")) << log;
}

TEST_F(StandardError, LogContinuesWithoutTheStandardDescriptors)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    const unique_fd null_device(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const replaced_stderr replaced(null_device.get());
    ASSERT_EQ(vexa_redirect_stderr_to_logfile(), 0);
    dup2(null_device.get(), STDERR_FILENO); // as daemon() does
    fputs("after\n", stderr);
    EXPECT_TRUE(folder.read("log").ends_with("after\n"));
}

TEST_F(StandardError, LinkInThePlaceOfTheLogFailsTheRedirection)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    std::filesystem::create_symlink("/dev/null", folder.path("log"));
    const std::string seen = messages([] {
        EXPECT_EQ(vexa_redirect_stderr_to_logfile(), -1);
        fputs("still here\n", stderr);
    });
    EXPECT_EQ(seen, "Log file '" + folder.path("log") +
                        "': it is a link\n"
                        "still here\n");
}

TEST_F(StandardError, FloodThroughStdioStaysWithinTheLimitOfTheLog)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    messages([] {
        ASSERT_EQ(vexa_redirect_stderr_to_logfile(), 0);
        for (int i = 0; i < 400'000; ++i) {
            fprintf(stderr, "libpng warning: zTXt: chunk data is too large\n");
        }
        fputs("the last line\n", stderr);
    });
    EXPECT_LE(std::filesystem::file_size(folder.path("log")) +
                  std::filesystem::file_size(folder.path("log.old")),
              uint64_t{16} << 20);
    EXPECT_TRUE(folder.read("log").ends_with("the last line\n"));
}

// --- the progress line --------------------------------------------------------------------------

TEST_F(StandardError, ProgressIsRedrawnInPlaceAndErasedAtTheEnd)
{
    const terminal screen(80);
    const replaced_stderr replaced(screen.slave);
    platform::draw_progress_line("10 % Decoding PNG");
    EXPECT_EQ(read_waiting(screen.master), "\r10 % Decoding PNG");
    platform::draw_progress_line("100 %");
    EXPECT_EQ(read_waiting(screen.master), "\r100 %            ");
    platform::draw_progress_line("");
    EXPECT_EQ(read_waiting(screen.master), "\r     \r");
    platform::draw_progress_line("");
    EXPECT_EQ(read_waiting(screen.master), "");
}

TEST_F(StandardError, MessageErasesTheProgressLineFirst)
{
    const terminal screen(80);
    const replaced_stderr replaced(screen.slave);
    platform::guard_standard_error();
    platform::draw_progress_line("abc");
    fputs("message\n", stderr);
    EXPECT_EQ(read_waiting(screen.master), "\rabc\r   \rmessage\r\n");
    platform::draw_progress_line("abcd");
    platform::release_standard_error();
    EXPECT_EQ(read_waiting(screen.master), "\rabcd\r    \r");
}

TEST_F(StandardError, ProgressIsTruncatedToTheTerminalBetweenCharacters)
{
    const terminal screen(5);
    const replaced_stderr replaced(screen.slave);
    platform::draw_progress_line("\xC3\xA4\xC3\xB6\xC3\xBC"
                                 "12345");
    EXPECT_EQ(read_waiting(screen.master), "\r\xC3\xA4\xC3\xB6\xC3\xBC"
                                           "1");
}

TEST_F(StandardError, TerminalOfUnknownWidthCountsAs80)
{
    const terminal screen(0);
    const replaced_stderr replaced(screen.slave);
    platform::draw_progress_line(std::string(200, 'x'));
    EXPECT_EQ(read_waiting(screen.master), "\r" + std::string(79, 'x'));
}

TEST_F(StandardError, NoProgressLineWithoutATerminal)
{
    const pipe_pair pipe = make_pipe();
    const replaced_stderr replaced(pipe.writer.get());
    platform::draw_progress_line("10 %");
    EXPECT_EQ(read_waiting(pipe.reader.get()), "");
}

TEST_F(StandardError, NoProgressLineWhenMessagesGoToTheLog)
{
    const terminal screen(80);
    const replaced_stderr replaced(screen.slave);
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    ASSERT_EQ(vexa_redirect_stderr_to_logfile(), 0);
    dup2(screen.slave, STDERR_FILENO);
    platform::draw_progress_line("10 %");
    EXPECT_EQ(read_waiting(screen.master), "");
}

} // namespace
