#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/item/serve_lock.h"
#include "tests/support/child_process.h"
#include "tests/support/item_fixture.h"
#include "tests/support/open_descriptors.h"

namespace {

class ServeLock : public item_test::ItemFixture {
protected:
    // A lock file that another worker has left, or holds.
    void write_lock(const char* text) { chmod(folder.write("s.sock.lock", text).c_str(), 0600); }

    void expect_refused(const char* reason)
    {
        EXPECT_EQ(messages([&] { EXPECT_FALSE(platform::take_serve_lock(socket)); }),
                  "Cannot lock socket '" + socket + ".lock': " + reason + "\n");
    }

    const std::string socket = folder.path("s.sock");
    const std::string number = std::to_string(getpid());
};

// Locks a file through a file description of its own, as another process would.
unique_fd locked(const std::string& path)
{
    unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
    return fd;
}

TEST_F(ServeLock, IsAFileWithTheProcessNumberThatIsRemovedAfterwards)
{
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_TRUE(item_test::is_locked(folder.path("s.sock.lock")));
    EXPECT_EQ(folder.read("s.sock.lock"), number + "\n");
    struct stat status = {};
    stat(folder.path("s.sock.lock").c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    platform::release_serve_lock();
    EXPECT_FALSE(folder.has("s.sock.lock"));
    platform::release_serve_lock();
}

TEST_F(ServeLock, HeldLockIsReportedWithSocketAndHolder)
{
    write_lock("4711\n");
    const unique_fd other = locked(folder.path("s.sock.lock"));
    const size_t descriptors = open_descriptors();
    bool taken = true;
    const std::string seen = messages([&] { taken = platform::take_serve_lock(socket); });
    EXPECT_FALSE(taken);
    EXPECT_EQ(seen, "Socket '" + socket + "': already served by process 4711\n");
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(folder.has("s.sock.lock"));
}

TEST_F(ServeLock, HolderWithoutANumberIsReportedAsAnotherProcess)
{
    const unique_fd other = locked(folder.path("s.sock.lock"));
    for (const char* text : {"", "x", "-3", "0", "99999999999999999999"}) {
        write_lock(text);
        EXPECT_EQ(messages([&] { EXPECT_FALSE(platform::take_serve_lock(socket)); }),
                  "Socket '" + socket + "': already served by another process\n");
    }
}

TEST_F(ServeLock, FileLeftByADeadWorkerIsTakenOver)
{
    write_lock("4711 and much more than this worker writes\n");
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_EQ(folder.read("s.sock.lock"), number + "\n");
}

// A holder that releases the lock while this process waits for it. A signal handler releases it, so
// that this happens before the last attempt however slowly the process is scheduled.
class ending_holder {
public:
    // Removes `removed_path` first unless it is null.
    ending_holder(unique_fd lock, const char* removed_path)
    {
        held_fd = lock.release();
        path = removed_path;
        struct sigaction action = {};
        action.sa_handler = end_now;
        sigaction(SIGALRM, &action, &former);
        const itimerval soon = {{}, {0, 100'000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
    }
    ending_holder(const ending_holder&) = delete;
    ending_holder& operator=(const ending_holder&) = delete;
    ~ending_holder()
    {
        const itimerval none = {};
        setitimer(ITIMER_REAL, &none, nullptr);
        if (held_fd != -1) {
            end_now(0);
        }
        sigaction(SIGALRM, &former, nullptr);
    }

    static bool has_ended() { return held_fd == -1; }

private:
    static void end_now(int /*signal*/)
    {
        if (path != nullptr) {
            unlink(path);
        }
        close(held_fd);
        held_fd = -1;
    }

    inline static volatile sig_atomic_t held_fd = -1;
    inline static const char* volatile path = nullptr;
    struct sigaction former = {};
};

TEST_F(ServeLock, EndingWorkerIsWaitedFor)
{
    const ending_holder holder(locked(folder.path("s.sock.lock")), nullptr);
    EXPECT_TRUE(platform::take_serve_lock(socket));
    EXPECT_TRUE(ending_holder::has_ended());
}

TEST_F(ServeLock, FileRemovedByItsHolderIsNotTheLock)
{
    // This process has the old file open when its holder removes it.
    const std::string path = folder.path("s.sock.lock");
    const ending_holder holder(locked(path), path.c_str());
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_TRUE(ending_holder::has_ended());
    EXPECT_TRUE(folder.has("s.sock.lock"));
    const unique_fd named(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(flock(named.get(), LOCK_EX | LOCK_NB), -1);
}

TEST_F(ServeLock, PathThatCannotBeLockedIsReported)
{
    const std::string lost = folder.path("none/s.sock");
    EXPECT_EQ(messages([&] { EXPECT_FALSE(platform::take_serve_lock(lost)); }),
              "Cannot lock socket '" + lost + ".lock': No such file or directory\n");
}

TEST_F(ServeLock, LinkIsRefusedAndItsTargetIsUntouched)
{
    folder.write("target", "contents");
    std::filesystem::create_symlink(folder.path("target"), folder.path("s.sock.lock"));
    expect_refused("it is a link");
    EXPECT_EQ(folder.read("target"), "contents");
}

TEST_F(ServeLock, FileWithASecondNameIsRefusedAndUntouched)
{
    chmod(folder.write("target", "contents").c_str(), 0600);
    std::filesystem::create_hard_link(folder.path("target"), folder.path("s.sock.lock"));
    expect_refused("it has a second name");
    EXPECT_EQ(folder.read("target"), "contents");
}

TEST_F(ServeLock, FileThatOthersMayUseIsRefused)
{
    write_lock("4711\n");
    for (const mode_t mode : {0644U, 0660U, 0602U, 0700U, 04600U}) {
        chmod(folder.path("s.sock.lock").c_str(), mode);
        expect_refused("its mode is not 0600");
    }
    EXPECT_EQ(folder.read("s.sock.lock"), "4711\n");
}

TEST_F(ServeLock, FileOfAnotherUserIsRefused)
{
    write_lock("4711\n");
    if (chown(folder.path("s.sock.lock").c_str(), unprivileged_user, gid_t(-1)) != 0) {
        GTEST_SKIP() << "only the superuser can give files away";
    }
    expect_refused("it belongs to another user");
    EXPECT_EQ(folder.read("s.sock.lock"), "4711\n");
}

TEST_F(ServeLock, WhatIsNoFileIsRefused)
{
    ASSERT_EQ(mkfifo(folder.path("s.sock.lock").c_str(), 0600), 0);
    expect_refused("it is not a file");
}

TEST_F(ServeLock, KilledHolderLeavesNoLock)
{
    const item_test::pipe_pair pipe = item_test::make_pipe();
    child_process holder([&] {
        const bool taken = platform::take_serve_lock(socket);
        const ssize_t written = write(pipe.writer.get(), taken ? "1" : "0", 1);
        pause();
        return written == 1 ? 0 : 1;
    });
    char taken = 0;
    ASSERT_EQ(platform::read_fully(pipe.reader.get(), &taken, 1), 1);
    ASSERT_EQ(taken, '1');
    messages([&] { EXPECT_FALSE(platform::take_serve_lock(socket)); });
    holder.kill_now();
    holder.wait();
    EXPECT_TRUE(platform::take_serve_lock(socket));
}

TEST_F(ServeLock, OneOfManyWins)
{
    const item_test::pipe_pair start = item_test::make_pipe();
    const item_test::pipe_pair results = item_test::make_pipe();
    std::vector<std::unique_ptr<child_process>> workers;
    for (int i = 0; i < 8; ++i) {
        workers.push_back(std::make_unique<child_process>([&] {
            char byte = 0;
            const bool started = platform::read_fully(start.reader.get(), &byte, 1) == 1;
            const bool taken = started && platform::take_serve_lock(socket);
            const bool written = write(results.writer.get(), taken ? "1" : "0", 1) == 1;
            pause();
            return written ? 0 : 1;
        }));
    }
    messages([&] {
        ASSERT_EQ(write(start.writer.get(), "xxxxxxxx", 8), 8);
        int winners = 0;
        for (size_t i = 0; i < workers.size(); ++i) {
            char taken = 0;
            ASSERT_EQ(platform::read_fully(results.reader.get(), &taken, 1), 1);
            winners += taken == '1' ? 1 : 0;
        }
        EXPECT_EQ(winners, 1);
    });
}

TEST_F(ServeLock, DaemonisedChildOwnsItAfterARefresh)
{
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_EQ(run_in_child([&] {
                  // Does not own the lock yet, so it leaves the file alone.
                  return folder.read("s.sock.lock") == number + "\n" ? 0 : 1;
              }),
              0);
    EXPECT_EQ(run_in_child([&] {
                  platform::refresh_serve_lock();
                  return folder.read("s.sock.lock") == std::to_string(getpid()) + "\n" ? 0 : 1;
              }),
              0);
}

TEST_F(ServeLock, ProcessThatDoesNotOwnItKeepsTheFile)
{
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_EQ(run_in_child([&] {
                  platform::release_serve_lock();
                  return 0;
              }),
              0);
    EXPECT_TRUE(folder.has("s.sock.lock"));
    EXPECT_TRUE(item_test::is_locked(folder.path("s.sock.lock")));
}

TEST_F(ServeLock, DescriptorIsNotLeaked)
{
    const size_t before = open_descriptors();
    ASSERT_TRUE(platform::take_serve_lock(socket));
    EXPECT_EQ(open_descriptors(), before + 2); // the file and its folder
    platform::release_serve_lock();
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
