#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "tests/support/temporary_folder.h"

namespace {

struct pipe_ends {
    unique_fd reader;
    unique_fd writer;
};

pipe_ends make_pipe()
{
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

void pause_briefly()
{
    const timespec pause = {0, 2'000'000};
    nanosleep(&pause, nullptr);
}

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 251);
    }
    return text;
}

// A timer signal every millisecond, whose handler does not restart interrupted system calls.
class interrupting_timer {
public:
    interrupting_timer()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &old_action_);
        set_interval(1000);
    }
    interrupting_timer(const interrupting_timer&) = delete;
    interrupting_timer& operator=(const interrupting_timer&) = delete;
    ~interrupting_timer()
    {
        set_interval(0);
        sigaction(SIGALRM, &old_action_, nullptr);
    }

private:
    static void set_interval(int us)
    {
        const itimerval timer = {{0, us}, {0, us}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    struct sigaction old_action_ = {};
};

// Blocks the timer's signal in the calling thread, so that the other thread receives it.
void block_timer_signal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

TEST(FdIo, ReadContinuesAfterPartialReads)
{
    pipe_ends ends = make_pipe();
    const std::string sent = pattern(10);
    std::thread sender([&] {
        for (const char c : sent) {
            pause_briefly();
            EXPECT_EQ(write(ends.writer.get(), &c, 1), 1);
        }
    });
    std::string received(sent.size(), '\0');
    EXPECT_EQ(platform::read_fully(ends.reader.get(), received.data(), received.size()), 10);
    sender.join();
    EXPECT_EQ(received, sent);
}

TEST(FdIo, ReadEndsWithTheFile)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("f", "abc").c_str(), O_RDONLY));
    std::array<char, 8> bytes = {};
    EXPECT_EQ(platform::read_fully(fd.get(), bytes.data(), bytes.size()), 3);
    EXPECT_EQ(platform::read_fully(fd.get(), bytes.data(), bytes.size()), 0);
}

TEST(FdIo, ReadFailureIsAnErrorEvenAfterSomeBytes)
{
    pipe_ends ends = make_pipe();
    ASSERT_EQ(fcntl(ends.reader.get(), F_SETFL, O_NONBLOCK), 0);
    ASSERT_EQ(write(ends.writer.get(), "ab", 2), 2);
    std::array<char, 8> bytes = {};
    EXPECT_EQ(platform::read_fully(ends.reader.get(), bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(FdIo, PreadReadsAtTheOffsetAndKeepsThePosition)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("f", "0123456789").c_str(), O_RDONLY));
    std::array<char, 4> bytes = {};
    EXPECT_EQ(platform::pread_fully(fd.get(), bytes.data(), bytes.size(), 8), 2);
    EXPECT_EQ(bytes[0], '8');
    EXPECT_EQ(bytes[1], '9');
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 0);
}

TEST(FdIo, PwriteWritesAtTheOffset)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("f", "0123456789").c_str(), O_RDWR));
    EXPECT_EQ(platform::pwrite_fully(fd.get(), "ab", 2, 9), 0);
    EXPECT_EQ(folder.read("f"), "012345678ab");
}

TEST(FdIo, WriteToAFullDeviceIsAnError)
{
    const unique_fd full(platform::open_file("/dev/full", O_WRONLY));
    ASSERT_TRUE(full);
    EXPECT_EQ(platform::write_fully(full.get(), "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST(FdIo, OpenedFilesAreClosedOnExec)
{
    const unique_fd fd(platform::open_file("/dev/null", O_RDONLY));
    EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
}

TEST(FdIo, OpenReportsTheReasonOfAFailure)
{
    EXPECT_EQ(platform::open_file("/nonexistent/file", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FdIo, LongTransfersSurviveATimerSignal)
{
    pipe_ends ends = make_pipe();
    const std::string sent = pattern(3 << 20);
    std::string received(sent.size(), '\0');
    const interrupting_timer timer;
    std::thread slow_reader([&] {
        block_timer_signal();
        for (size_t done = 0; done < received.size(); done += 65536) {
            pause_briefly();
            platform::read_fully(ends.reader.get(), received.data() + done, 65536);
        }
    });
    EXPECT_EQ(platform::write_fully(ends.writer.get(), sent.data(), sent.size()), 0);
    slow_reader.join();
    EXPECT_EQ(received, sent);
}

TEST(FdIo, BlockingReadSurvivesATimerSignal)
{
    pipe_ends ends = make_pipe();
    const interrupting_timer timer;
    std::thread late_writer([&] {
        block_timer_signal();
        for (int i = 0; i < 10; ++i) {
            pause_briefly();
        }
        EXPECT_EQ(write(ends.writer.get(), "x", 1), 1);
    });
    char byte = '\0';
    EXPECT_EQ(platform::read_fully(ends.reader.get(), &byte, 1), 1);
    late_writer.join();
    EXPECT_EQ(byte, 'x');
}

} // namespace
