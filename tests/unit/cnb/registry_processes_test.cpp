// Processes start, exit and are killed at any time: numbers stay unique, the limit holds, and the
// resources of dead processes are released.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/cnb/registry.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::signal_pipe;
using platform::buffer_registry;
using platform::claim_result;

namespace {

constexpr uint64_t limit = 1000;

class RegistryProcesses : public testing::Test {
protected:
    RegistryProcesses() : folder_fd(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY)) {}

    // True once one owner can claim the whole limit.
    bool everything_is_released()
    {
        for (int tries = 0; tries < 5000; ++tries) {
            buffer_registry instance;
            if (instance.open(folder_fd.get()) != 0) {
                return false;
            }
            if (instance.claim(limit, limit) == claim_result::TAKEN) {
                return instance.number() == 1;
            }
            usleep(1000);
        }
        return false;
    }

    temporary_folder folder;
    unique_fd folder_fd;
};

// Memory in which racing processes record what they hold.
struct shared_board {
    std::atomic<uint64_t> bytes;
    std::atomic<uint32_t> holders_of[platform::max_buffers + 1];
};

shared_board* make_board()
{
    void* memory = mmap(nullptr, sizeof(shared_board), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<shared_board*>(memory);
}

// Exit status 0: success; 1: a number was shared; 2: over the limit; 3: a claim failed.
int claim_and_release(int folder, shared_board* board, unsigned seed)
{
    std::minstd_rand random(seed);
    for (int round = 0; round < 300; ++round) {
        buffer_registry instance;
        if (instance.open(folder) != 0) {
            return 3;
        }
        const uint64_t bytes = 1 + random() % 400;
        claim_result result = claim_result::NO_ROOM;
        while (result == claim_result::NO_ROOM) {
            result = instance.claim(bytes, limit);
        }
        if (result != claim_result::TAKEN) {
            return 3;
        }
        if (board->holders_of[instance.number()].fetch_add(1) != 0) {
            return 1;
        }
        if (board->bytes.fetch_add(bytes) + bytes > limit) {
            return 2;
        }
        if (random() % 4 == 0) {
            usleep(100);
        }
        board->bytes.fetch_sub(bytes);
        board->holders_of[instance.number()].fetch_sub(1);
        if (random() % 2 == 0) {
            instance.release(); // otherwise closing the file releases it
        }
    }
    return 0;
}

TEST_F(RegistryProcesses, RacingProcessesShareNoNumberAndKeepTheLimit)
{
    shared_board* board = make_board();
    ASSERT_NE(board, nullptr);
    std::vector<std::unique_ptr<child_process>> children;
    for (unsigned seed = 1; seed <= 8; ++seed) {
        children.push_back(std::make_unique<child_process>(
            [&, seed] { return claim_and_release(folder_fd.get(), board, seed); }));
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
    EXPECT_TRUE(everything_is_released());
    munmap(board, sizeof *board);
}

int claim_until_killed(int folder)
{
    for (;;) {
        buffer_registry instance;
        if (instance.open(folder) != 0) {
            return 1;
        }
        if (instance.claim(100, limit) == claim_result::TAKEN) {
            usleep(50);
            instance.release();
        }
    }
}

TEST_F(RegistryProcesses, ResourcesOfKilledProcessesAreReleased)
{
    std::minstd_rand random(7);
    std::vector<std::unique_ptr<child_process>> children(6);
    for (int round = 0; round < 200; ++round) {
        std::unique_ptr<child_process>& child = children[random() % children.size()];
        if (child) {
            child->kill_now();
            ASSERT_EQ(child->wait(), -SIGKILL); // on an error it would have ended by itself
        }
        child =
            std::make_unique<child_process>([&] { return claim_until_killed(folder_fd.get()); });
        usleep(static_cast<useconds_t>(random() % 3000));
    }
    children.clear(); // kills them
    EXPECT_TRUE(everything_is_released());
}

TEST_F(RegistryProcesses, ProcessKilledWithItsNumberLockedLeavesNothingBehind)
{
    buffer_registry maker;
    ASSERT_EQ(maker.open(folder_fd.get()), 0);
    child_process child([&] {
        // Takes the lock of a record, and that of the header, and dies before it writes the record.
        const int file = openat(folder_fd.get(), "registry", O_RDWR | O_CLOEXEC);
        struct flock both = {};
        both.l_type = F_WRLCK;
        both.l_whence = SEEK_SET;
        both.l_len = 32;
        if (fcntl(file, F_OFD_SETLK, &both) == 0) {
            kill(getpid(), SIGKILL);
        }
        return 1;
    });
    ASSERT_EQ(child.wait(), -SIGKILL);
    EXPECT_TRUE(everything_is_released());
}

TEST_F(RegistryProcesses, RoomReturnsWhenTheOtherProcessExits)
{
    signal_pipe claimed;
    signal_pipe leave;
    child_process other([&] {
        buffer_registry instance;
        if (instance.open(folder_fd.get()) != 0 ||
            instance.claim(limit, limit) != claim_result::TAKEN) {
            return 1;
        }
        claimed.give();
        leave.wait();
        return 0; // without a release
    });
    claimed.wait();
    buffer_registry instance;
    ASSERT_EQ(instance.open(folder_fd.get()), 0);
    EXPECT_EQ(instance.claim(1, limit), claim_result::NO_ROOM);
    leave.give();
    EXPECT_EQ(other.wait(), 0);
    EXPECT_TRUE(everything_is_released());
}

TEST_F(RegistryProcesses, DaemonisedChildKeepsTheNumber)
{
    signal_pipe daemonised;
    signal_pipe leave;
    child_process parent([&] {
        buffer_registry instance;
        if (instance.open(folder_fd.get()) != 0 ||
            instance.claim(limit, limit) != claim_result::TAKEN) {
            return 1;
        }
        if (fork() != 0) {
            return 0; // like daemon(), whose parent exits at once
        }
        leave.close_giving_end();
        instance.note_owner();
        daemonised.give();
        leave.wait();
        _exit(0);
    });
    const pid_t former = parent.pid();
    ASSERT_EQ(parent.wait(), 0);
    daemonised.wait();

    buffer_registry instance;
    ASSERT_EQ(instance.open(folder_fd.get()), 0);
    EXPECT_EQ(instance.claim(1, limit), claim_result::NO_ROOM);
    uint32_t owner = 0;
    const unique_fd file(openat(folder_fd.get(), "registry", O_RDONLY));
    ASSERT_EQ(platform::pread_fully(file.get(), &owner, sizeof owner, 16 + 8),
              ssize_t{sizeof owner});
    EXPECT_NE(owner, static_cast<uint32_t>(former));
    EXPECT_EQ(kill(static_cast<pid_t>(owner), 0), 0);

    leave.give();
    EXPECT_TRUE(everything_is_released());
}

} // namespace
